// Parses arbitrary bytes with the limits for flight traces.
#include "tools/fuzz/json_fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return korv_fuzz::FuzzJsonInput(data, size, korv::core::JsonLimits::Trace());
}
