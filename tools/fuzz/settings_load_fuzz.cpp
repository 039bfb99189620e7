// Loads arbitrary bytes as a settings file. Whatever loads must save and load again to an equal
// record, a refused file must leave defaults, and nothing may be left in the private folder.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "core/settings.h"

namespace {

namespace fs = std::filesystem;
using korv::core::Settings;
using korv::core::SettingsLoadStatus;
using korv::core::SettingsStore;

[[noreturn]] void Fail(const char* what)
{
    std::fprintf(stderr, "settings_load_fuzz: %s\n", what);
    std::abort();
}

class PrivateFolder {
public:
    PrivateFolder()
    {
        const char* base = std::getenv("TMPDIR");
        const fs::path parent = base != nullptr && *base != '\0' ? base : "/tmp";
        std::string pattern = (parent / "korv-fuzz-XXXXXX").native();
        if (::mkdtemp(pattern.data()) == nullptr) {
            Fail("could not create a private folder");
        }
        path = pattern;
    }
    ~PrivateFolder()
    {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    PrivateFolder(const PrivateFolder&) = delete;
    PrivateFolder& operator=(const PrivateFolder&) = delete;

    void Empty() const
    {
        std::error_code error;
        for (const auto& entry : fs::directory_iterator(path, error)) {
            fs::remove_all(entry.path(), error);
        }
    }

    fs::path path;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const PrivateFolder folder;
    const fs::path file = folder.path / "settings.json";
    {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
        if (!out) {
            Fail("could not write the input file");
        }
    }

    const korv::core::SettingsLoadResult first = SettingsStore::Load(file);
    if (first.status != SettingsLoadStatus::loaded) {
        if (!(first.settings == Settings{}) || first.error.empty()) {
            Fail("a refused file did not give defaults and an error");
        }
        if (!first.quarantinedPath.empty() && (fs::exists(file) || !fs::exists(first.quarantinedPath))) {
            Fail("a quarantined file was not moved aside");
        }
    } else {
        const auto saved = SettingsStore::Save(file, first.settings);
        // Indentation can push a file that was just under the limit over it; that is refused, not a fault.
        if (saved && *saved != "settings file exceeds size limit") {
            std::fprintf(stderr, "save error: %s\n", saved->c_str());
            Fail("a loaded record could not be saved");
        }
        if (!saved) {
            const korv::core::SettingsLoadResult second = SettingsStore::Load(file);
            if (second.status != SettingsLoadStatus::loaded || !(second.settings == first.settings)) {
                std::fprintf(stderr, "reload error: %s\n", second.error.c_str());
                Fail("a saved record did not load back equal");
            }
        }
    }
    folder.Empty();
    return 0;
}
