#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QUuid>

#include "host/linux_client/single_instance_coordinator.h"

namespace korv::host::linux_client {
namespace {

// Beyond the kernel's largest possible pid, so no process can have it.
constexpr qint64 kNoSuchProcess = 4194305;
const QString kToken = QStringLiteral("1.0.0");

QString UniqueServerName()
{
    static int counter = 0;
    return QStringLiteral("korv-test-%1-%2").arg(::getpid()).arg(++counter);
}

// Where a local socket of that name lives, for the raw peers below.
std::string SocketPath(const QString& serverName)
{
    return QFile::encodeName(QDir::tempPath() + QLatin1Char('/') + serverName).toStdString();
}

sockaddr_un SocketAddress(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return address;
}

bool WriteAll(int descriptor, const std::string& text)
{
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(descriptor, text.data() + written, text.size() - written);
        if (n <= 0) {
            return false;
        }
        written += static_cast<std::size_t>(n);
    }
    return true;
}

// Reads until the peer closes, a line ends (when asked) or the time runs out.
std::string ReadFrom(int descriptor, bool stopAtLineEnd, int timeoutMs, bool* closedByPeer = nullptr)
{
    std::string text;
    QElapsedTimer elapsed;
    elapsed.start();
    while (elapsed.elapsed() < timeoutMs) {
        pollfd poller{descriptor, POLLIN, 0};
        if (::poll(&poller, 1, 50) <= 0) {
            continue;
        }
        char buffer[512];
        const ssize_t n = ::read(descriptor, buffer, sizeof(buffer));
        if (n <= 0) {
            if (closedByPeer != nullptr) {
                *closedByPeer = true;
            }
            break;
        }
        text.append(buffer, static_cast<std::size_t>(n));
        if (stopAtLineEnd && text.find('\n') != std::string::npos) {
            break;
        }
    }
    return text;
}

std::vector<std::string> Fields(std::string line)
{
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t bar = line.find('|'); bar != std::string::npos; bar = line.find('|', start)) {
        fields.push_back(line.substr(start, bar - start));
        start = bar + 1;
    }
    fields.push_back(line.substr(start));
    return fields;
}

// A running instance that is not ours: it answers one request with whatever `reply` makes of it.
class FakePeer {
public:
    FakePeer(const QString& serverName, std::function<std::string(const std::vector<std::string>&)> reply)
        : path_(SocketPath(serverName))
    {
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = SocketAddress(path_);
        ::unlink(path_.c_str());
        const bool bound = ::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                           ::listen(listener_, 4) == 0;
        EXPECT_TRUE(bound) << std::strerror(errno);
        thread_ = std::thread([this, reply = std::move(reply)] {
            pollfd poller{listener_, POLLIN, 0};
            if (::poll(&poller, 1, 10000) <= 0) {
                return;
            }
            const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection < 0) {
                return;
            }
            request_ = ReadFrom(connection, true, 5000);
            const std::string answer = reply(Fields(request_));
            if (!answer.empty()) {
                WriteAll(connection, answer);
            }
            ::close(connection);
        });
    }

    ~FakePeer()
    {
        Join();
        ::close(listener_);
        ::unlink(path_.c_str());
    }

    FakePeer(const FakePeer&) = delete;
    FakePeer& operator=(const FakePeer&) = delete;

    std::string Request()
    {
        Join();
        return request_;
    }

private:
    void Join()
    {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    std::string path_;
    int listener_ = -1;
    std::thread thread_;
    std::string request_;
};

struct RawExchange {
    bool connected = false;
    bool closedByPeer = false;
    std::string received;
};

// Talks to a server of this process from another thread while this one runs the event loop.
RawExchange ExchangeWithServer(const QString& serverName, const std::string& payload, int readTimeoutMs = 5000)
{
    RawExchange exchange;
    std::atomic<bool> done{false};
    std::thread client([&] {
        const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = SocketAddress(SocketPath(serverName));
        if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            exchange.connected = true;
            WriteAll(descriptor, payload);
            exchange.received = ReadFrom(descriptor, false, readTimeoutMs, &exchange.closedByPeer);
        }
        ::close(descriptor);
        done = true;
    });
    EXPECT_TRUE(QTest::qWaitFor([&] { return done.load(); }, readTimeoutMs + 10000));
    client.join();
    return exchange;
}

struct Fixture {
    QTemporaryDir folder{QDir::tempPath() + QStringLiteral("/korv-instance-XXXXXX")};

    InstanceCoordinatorConfig Config(const QString& serverName) const
    {
        InstanceCoordinatorConfig config = InstanceCoordinatorConfig::ForThisProcess();
        config.serverName = serverName;
        config.lockFolder = folder.path();
        return config;
    }

    QString LockPath(const QString& serverName) const
    {
        return folder.path() + QLatin1Char('/') + serverName + QStringLiteral(".instance");
    }
};

TEST(InstanceProtocol, ServerNameCarriesUserAndSafeToken)
{
    const std::vector<std::tuple<uid_t, QString, QString>> cases = {
        {1000, QStringLiteral("1.0.0"), QStringLiteral("korv-task-manager-1000-1-0-0")},
        {0, QStringLiteral("2.1 beta/x"), QStringLiteral("korv-task-manager-0-2-1-beta-x")},
        {1000, QStringLiteral("\u00fcber_9"), QStringLiteral("korv-task-manager-1000-\u00fcber-9")},
    };
    for (const auto& [user, token, expected] : cases) {
        EXPECT_EQ(InstanceServerName(user, token).toStdString(), expected.toStdString());
    }
}

TEST(InstanceProtocol, LinesHaveTheWireFormat)
{
    EXPECT_EQ(InstanceRequestLine(kToken, QStringLiteral("abc"), 42).toStdString(), "korv-instance-v1|1.0.0|abc|42\n");
    EXPECT_EQ(InstanceAckLine(kToken, QStringLiteral("abc"), 7).toStdString(), "korv-instance-ack-v1|1.0.0|abc|7\n");
    EXPECT_EQ(ValidateInstanceRequest(QString::fromUtf8(InstanceRequestLine(kToken, QStringLiteral("n"), 42)), kToken, 7),
              QStringLiteral("n"));
    EXPECT_EQ(ValidateInstanceAck(QString::fromUtf8(InstanceAckLine(kToken, QStringLiteral("n"), 42)), kToken,
                                  QStringLiteral("n"), 7),
              42);
}

TEST(InstanceProtocol, RequestValidation)
{
    constexpr qint64 kOwn = 100;
    const std::vector<std::pair<const char*, std::optional<QString>>> cases = {
        {"korv-instance-v1|1.0.0|n1|42", QStringLiteral("n1")},
        {"  korv-instance-v1|1.0.0|n1|42\r\n", QStringLiteral("n1")},
        {"korv-instance-v1|2.0.0|n1|42", std::nullopt},
        {"korv-instance-ack-v1|1.0.0|n1|42", std::nullopt},
        {"KORV-INSTANCE-V1|1.0.0|n1|42", std::nullopt},
        {"korv-instance-v1|1.0.0||42", std::nullopt},
        {"korv-instance-v1|1.0.0|n1|100", std::nullopt},
        {"korv-instance-v1|1.0.0|n1|0", std::nullopt},
        {"korv-instance-v1|1.0.0|n1|-4", std::nullopt},
        {"korv-instance-v1|1.0.0|n1|4x", std::nullopt},
        {"korv-instance-v1|1.0.0|n1| 42", std::nullopt},
        {"korv-instance-v1|1.0.0|n1|", std::nullopt},
        {"korv-instance-v1|1.0.0|n1", std::nullopt},
        {"korv-instance-v1|1.0.0|n1|42|x", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& [line, expected] : cases) {
        EXPECT_EQ(ValidateInstanceRequest(QString::fromUtf8(line), kToken, kOwn), expected) << line;
    }
}

TEST(InstanceProtocol, AckValidation)
{
    constexpr qint64 kOwn = 100;
    const QString nonce = QStringLiteral("0f2c9a54-3b7e-4c1d-9e8f-123456789abc");
    const std::vector<std::pair<QString, std::optional<qint64>>> cases = {
        {QStringLiteral("korv-instance-ack-v1|1.0.0|%1|42").arg(nonce), 42},
        {QStringLiteral("korv-instance-ack-v1|1.0.0|%1|42\n").arg(nonce), 42},
        {QStringLiteral("korv-instance-v1|1.0.0|%1|42").arg(nonce), std::nullopt},
        {QStringLiteral("korv-instance-ack-v1|9.9.9|%1|42").arg(nonce), std::nullopt},
        {QStringLiteral("korv-instance-ack-v1|1.0.0|%1|42").arg(nonce.toUpper()), std::nullopt},
        {QStringLiteral("korv-instance-ack-v1|1.0.0|other-nonce|42"), std::nullopt},
        {QStringLiteral("korv-instance-ack-v1|1.0.0||42"), std::nullopt},
        {QStringLiteral("korv-instance-ack-v1|1.0.0|%1|100").arg(nonce), std::nullopt},
        {QStringLiteral("korv-instance-ack-v1|1.0.0|%1|0").arg(nonce), std::nullopt},
        {QStringLiteral("korv-instance-ack-v1|1.0.0|%1|42|1").arg(nonce), std::nullopt},
        {QStringLiteral("korv-instance-ack-v1|1.0.0|%1").arg(nonce), std::nullopt},
        {QString(), std::nullopt},
    };
    for (const auto& [line, expected] : cases) {
        EXPECT_EQ(ValidateInstanceAck(line, kToken, nonce, kOwn), expected) << line.toStdString();
    }
    EXPECT_EQ(ValidateInstanceAck(QStringLiteral("korv-instance-ack-v1|1.0.0||42"), kToken, QString(), kOwn),
              std::nullopt);
}

TEST(InstanceProtocol, ProcessOwnership)
{
    const QString proc = QStringLiteral("/proc");
    EXPECT_TRUE(ProcessOwnedByUser(proc, ::getpid(), ::getuid()));
    EXPECT_FALSE(ProcessOwnedByUser(proc, ::getpid(), ::getuid() + 1));
    EXPECT_FALSE(ProcessOwnedByUser(proc, kNoSuchProcess, ::getuid()));
}

TEST(InstanceLock, FreshFileIsLockedForThisProcessOnly)
{
    Fixture fixture;
    const QString path = fixture.folder.filePath(QStringLiteral("a.instance"));
    const int first = AcquireInstanceLock(path, ::getuid());
    ASSERT_GE(first, 0);
    struct stat info {};
    ASSERT_EQ(::stat(QFile::encodeName(path).constData(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(info.st_mode & 0777, 0600U);
    EXPECT_EQ(AcquireInstanceLock(path, ::getuid()), -1);
    ::close(first);
    const int again = AcquireInstanceLock(path, ::getuid());
    EXPECT_GE(again, 0);
    ::close(again);
}

TEST(InstanceLock, LockOfAKilledHolderIsFree)
{
    Fixture fixture;
    const QByteArray path = QFile::encodeName(fixture.folder.filePath(QStringLiteral("b.instance")));
    int ready[2];
    ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const int descriptor = ::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        const char ok = (descriptor >= 0 && ::flock(descriptor, LOCK_EX | LOCK_NB) == 0) ? '1' : '0';
        (void)::write(ready[1], &ok, 1);
        for (;;) {
            ::pause();
        }
    }
    ::close(ready[1]);
    char ok = 0;
    ASSERT_EQ(::read(ready[0], &ok, 1), 1);
    ::close(ready[0]);
    ASSERT_EQ(ok, '1');
    EXPECT_EQ(AcquireInstanceLock(QFile::decodeName(path), ::getuid()), -1);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    const int descriptor = AcquireInstanceLock(QFile::decodeName(path), ::getuid());
    EXPECT_GE(descriptor, 0);
    ::close(descriptor);
}

TEST(InstanceLock, RefusesWhatIsNotOurOwnRegularFile)
{
    Fixture fixture;
    const QString target = fixture.folder.filePath(QStringLiteral("target"));
    const QByteArray targetPath = QFile::encodeName(target);
    struct RefusedCase {
        const char* name;
        std::function<uid_t(const QByteArray&)> make;  // returns the user the lock is asked for
    };
    const std::vector<RefusedCase> cases = {
        {"dangling symbolic link", [&](const QByteArray& path) {
             EXPECT_EQ(::symlink(targetPath.constData(), path.constData()), 0);
             return ::getuid();
         }},
        {"symbolic link to our file", [&](const QByteArray& path) {
             QFile file(target);
             EXPECT_TRUE(file.open(QIODevice::WriteOnly));
             file.write("keep");
             file.close();
             EXPECT_EQ(::symlink(targetPath.constData(), path.constData()), 0);
             return ::getuid();
         }},
        {"directory", [](const QByteArray& path) {
             EXPECT_EQ(::mkdir(path.constData(), 0700), 0);
             return ::getuid();
         }},
        {"named pipe", [](const QByteArray& path) {
             EXPECT_EQ(::mkfifo(path.constData(), 0600), 0);
             return ::getuid();
         }},
        {"file of another user", [](const QByteArray& path) {
             const int descriptor = ::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
             EXPECT_GE(descriptor, 0);
             ::close(descriptor);
             // As root the file is handed to nobody; otherwise the lock is asked for another user.
             if (::geteuid() == 0) {
                 EXPECT_EQ(::chown(path.constData(), 65534, 65534), 0);
                 return ::getuid();
             }
             return ::getuid() + 1;
         }},
    };
    int index = 0;
    for (const RefusedCase& refused : cases) {
        SCOPED_TRACE(refused.name);
        const QString path = fixture.folder.filePath(QStringLiteral("refused-%1.instance").arg(++index));
        const uid_t user = refused.make(QFile::encodeName(path));
        const int descriptor = AcquireInstanceLock(path, user);
        EXPECT_EQ(descriptor, -1);
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }
    QFile file(target);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), QByteArray("keep"));
}

TEST(SingleInstanceCoordinator, FirstStartBecomesPrimary)
{
    Fixture fixture;
    const QString name = UniqueServerName();
    SingleInstanceCoordinator coordinator(fixture.Config(name));
    EXPECT_EQ(coordinator.Coordinate(), SingleInstanceCoordinator::Outcome::primary);
    EXPECT_TRUE(coordinator.HoldsLock());
    EXPECT_TRUE(coordinator.IsListening());
    EXPECT_EQ(coordinator.LockFilePath(), fixture.LockPath(name));
    EXPECT_TRUE(QFileInfo(fixture.LockPath(name)).isFile());
}

TEST(SingleInstanceCoordinator, DefaultServerNameIsTheUsersInstanceName)
{
    InstanceCoordinatorConfig config = InstanceCoordinatorConfig::ForThisProcess();
    EXPECT_EQ(config.processId, ::getpid());
    EXPECT_EQ(config.userId, ::getuid());
    SingleInstanceCoordinator coordinator(config);
    EXPECT_EQ(coordinator.ServerName(), InstanceServerName(::getuid(), QStringLiteral("1.0.0")));
}

TEST(SingleInstanceCoordinator, ServerAcknowledgesAValidStartAndActivates)
{
    Fixture fixture;
    const QString name = UniqueServerName();
    SingleInstanceCoordinator coordinator(fixture.Config(name));
    ASSERT_EQ(coordinator.Coordinate(), SingleInstanceCoordinator::Outcome::primary);

    const std::string expectedAck = "korv-instance-ack-v1|1.0.0|nonce-1|" + std::to_string(::getpid()) + "\n";
    RawExchange exchange = ExchangeWithServer(name, "korv-instance-v1|1.0.0|nonce-1|4242\n");
    ASSERT_TRUE(exchange.connected);
    EXPECT_EQ(exchange.received, expectedAck);
    EXPECT_TRUE(exchange.closedByPeer);
    // No window yet: the start is remembered and delivered when the callback arrives.
    EXPECT_TRUE(coordinator.PendingActivation());
    int activations = 0;
    coordinator.SetActivationCallback([&] { ++activations; });
    EXPECT_EQ(activations, 1);
    EXPECT_FALSE(coordinator.PendingActivation());

    exchange = ExchangeWithServer(name, "korv-instance-v1|1.0.0|nonce-2|4242\n");
    EXPECT_EQ(exchange.received, "korv-instance-ack-v1|1.0.0|nonce-2|" + std::to_string(::getpid()) + "\n");
    EXPECT_EQ(activations, 2);
    EXPECT_FALSE(coordinator.PendingActivation());
}

TEST(SingleInstanceCoordinator, ServerGivesBadRequestsNoReply)
{
    Fixture fixture;
    const QString name = UniqueServerName();
    SingleInstanceCoordinator coordinator(fixture.Config(name));
    ASSERT_EQ(coordinator.Coordinate(), SingleInstanceCoordinator::Outcome::primary);
    int activations = 0;
    coordinator.SetActivationCallback([&] { ++activations; });

    const std::string ownPid = std::to_string(::getpid());
    const std::vector<std::string> requests = {
        "korv-instance-v1|0.9.0|nonce|4242\n",
        "korv-instance-ack-v1|1.0.0|nonce|4242\n",
        "korv-instance-v1|1.0.0|nonce|" + ownPid + "\n",
        "korv-instance-v1|1.0.0||4242\n",
        "korv-instance-v1|1.0.0|nonce|0\n",
        "hello\n",
        "korv-instance-v1|1.0.0|nonce|4242",  // never finished
        std::string(4096, 'x'),
    };
    for (const std::string& request : requests) {
        SCOPED_TRACE(request.substr(0, 60));
        const RawExchange exchange = ExchangeWithServer(name, request);
        ASSERT_TRUE(exchange.connected);
        EXPECT_EQ(exchange.received, "");
        EXPECT_TRUE(exchange.closedByPeer) << "the server keeps a silent connection open";
    }
    EXPECT_EQ(activations, 0);
    EXPECT_FALSE(coordinator.PendingActivation());
}

struct ClientCase {
    const char* name;
    std::function<std::string(const std::vector<std::string>& request, qint64 livePeer)> reply;
    bool acceptedByUser;  // false: the coordinator is told it runs for another user
    bool expectHandOver;
};

TEST(SingleInstanceCoordinator, ClientAcceptsOnlyAGenuineAcknowledgement)
{
    QProcess peerProcess;
    peerProcess.start(QStringLiteral("sleep"), {QStringLiteral("60")});
    ASSERT_TRUE(peerProcess.waitForStarted(10000));
    const qint64 livePeer = peerProcess.processId();

    const auto ack = [](const std::string& token, const std::string& nonce, qint64 pid) {
        return "korv-instance-ack-v1|" + token + "|" + nonce + "|" + std::to_string(pid) + "\n";
    };
    const std::vector<ClientCase> cases = {
        {"genuine", [&](const auto& r, qint64 peer) { return ack(r.at(1), r.at(2), peer); }, true, true},
        {"wrong token", [&](const auto& r, qint64 peer) { return ack("2.0.0", r.at(2), peer); }, true, false},
        {"wrong nonce", [&](const auto& r, qint64 peer) {
             return ack(r.at(1), "00000000-0000-0000-0000-000000000000", peer);
         }, true, false},
        {"request echoed", [&](const auto& r, qint64) {
             return "korv-instance-v1|" + r.at(1) + "|" + r.at(2) + "|" + r.at(3) + "\n";
         }, true, false},
        {"reply from the client's own pid", [&](const auto& r, qint64) {
             return ack(r.at(1), r.at(2), ::getpid());
         }, true, false},
        {"process of another user", [&](const auto& r, qint64 peer) { return ack(r.at(1), r.at(2), peer); }, false,
         false},
        {"process that does not exist", [&](const auto& r, qint64) {
             return ack(r.at(1), r.at(2), kNoSuchProcess);
         }, true, false},
        {"no reply", [](const auto&, qint64) { return std::string(); }, true, false},
    };
    for (const ClientCase& clientCase : cases) {
        SCOPED_TRACE(clientCase.name);
        Fixture fixture;
        const QString name = UniqueServerName();
        InstanceCoordinatorConfig config = fixture.Config(name);
        if (!clientCase.acceptedByUser) {
            config.userId = ::getuid() + 1;
        }
        FakePeer peer(name, [&](const std::vector<std::string>& request) {
            return request.size() == 4 ? clientCase.reply(request, livePeer) : std::string();
        });
        SingleInstanceCoordinator coordinator(config);
        EXPECT_EQ(coordinator.TryHandOver(), clientCase.expectHandOver);

        const std::vector<std::string> request = Fields(peer.Request());
        ASSERT_EQ(request.size(), 4U);
        EXPECT_EQ(request[0], "korv-instance-v1");
        EXPECT_EQ(request[1], "1.0.0");
        EXPECT_EQ(request[2], QUuid::fromString(QString::fromStdString(request[2]))
                                  .toString(QUuid::WithoutBraces)
                                  .toLower()
                                  .toStdString());
        EXPECT_FALSE(QUuid::fromString(QString::fromStdString(request[2])).isNull());
        EXPECT_EQ(request[3], std::to_string(::getpid()));
    }
    peerProcess.kill();
    peerProcess.waitForFinished(10000);
}

TEST(SingleInstanceCoordinator, NoServerMeansNoHandOver)
{
    Fixture fixture;
    SingleInstanceCoordinator coordinator(fixture.Config(UniqueServerName()));
    EXPECT_FALSE(coordinator.TryHandOver());
}

// The running instance lives on a thread of its own with its own event loop, so that this thread can
// block in the hand-over as a second process would.
class PrimaryThread : public QThread {
public:
    explicit PrimaryThread(InstanceCoordinatorConfig config) : config_(std::move(config)) {}

    std::atomic<bool> ready{false};
    std::atomic<int> activations{0};
    std::atomic<bool> becamePrimary{false};

protected:
    void run() override
    {
        SingleInstanceCoordinator coordinator(config_);
        becamePrimary = coordinator.Coordinate() == SingleInstanceCoordinator::Outcome::primary &&
                        coordinator.HoldsLock() && coordinator.IsListening();
        coordinator.SetActivationCallback([this] { ++activations; });
        ready = true;
        exec();
    }

private:
    InstanceCoordinatorConfig config_;
};

TEST(SingleInstanceCoordinator, SecondStartHandsOverToTheRunningInstance)
{
    Fixture fixture;
    const QString name = UniqueServerName();
    PrimaryThread primary(fixture.Config(name));
    primary.start();
    ASSERT_TRUE(QTest::qWaitFor([&] { return primary.ready.load(); }, 10000));
    EXPECT_TRUE(primary.becamePrimary);

    InstanceCoordinatorConfig second = fixture.Config(name);
    second.processId = kNoSuchProcess;  // stands for the second process in its request
    SingleInstanceCoordinator coordinator(second);
    EXPECT_EQ(coordinator.Coordinate(), SingleInstanceCoordinator::Outcome::handedOver);
    EXPECT_FALSE(coordinator.HoldsLock());
    EXPECT_FALSE(coordinator.IsListening());
    EXPECT_TRUE(QTest::qWaitFor([&] { return primary.activations.load() == 1; }, 5000));

    primary.quit();
    primary.wait();
}

TEST(SingleInstanceCoordinator, SilentLockHolderDoesNotKeepTheUserOut)
{
    Fixture fixture;
    const QString name = UniqueServerName();
    const int hung = AcquireInstanceLock(fixture.LockPath(name), ::getuid());
    ASSERT_GE(hung, 0);

    SingleInstanceCoordinator coordinator(fixture.Config(name));
    QElapsedTimer elapsed;
    elapsed.start();
    EXPECT_EQ(coordinator.Coordinate(), SingleInstanceCoordinator::Outcome::primary);
    // It gave a running instance the whole window to answer, and then took over.
    EXPECT_GE(elapsed.elapsed(), 1900);
    EXPECT_LT(elapsed.elapsed(), 30000);
    EXPECT_FALSE(coordinator.HoldsLock());
    EXPECT_TRUE(coordinator.IsListening());
    ::close(hung);
}

TEST(SingleInstanceCoordinator, SymbolicLinkAsLockFileIsNotFollowed)
{
    Fixture fixture;
    const QString name = UniqueServerName();
    const QString target = fixture.folder.filePath(QStringLiteral("elsewhere"));
    ASSERT_EQ(::symlink(QFile::encodeName(target).constData(), QFile::encodeName(fixture.LockPath(name)).constData()),
              0);

    SingleInstanceCoordinator coordinator(fixture.Config(name));
    EXPECT_EQ(coordinator.Coordinate(), SingleInstanceCoordinator::Outcome::primary);
    EXPECT_FALSE(coordinator.HoldsLock());
    EXPECT_TRUE(coordinator.IsListening());
    EXPECT_FALSE(QFileInfo::exists(target));
}

TEST(SingleInstanceCoordinator, StaleSocketOfADeadInstanceIsReplaced)
{
    Fixture fixture;
    const QString name = UniqueServerName();
    // A socket file whose listener is gone, as a killed instance leaves it.
    const std::string path = SocketPath(name);
    const int stale = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = SocketAddress(path);
    ASSERT_EQ(::bind(stale, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ::close(stale);
    ASSERT_TRUE(QFileInfo::exists(QFile::decodeName(QByteArray::fromStdString(path))));

    SingleInstanceCoordinator coordinator(fixture.Config(name));
    EXPECT_EQ(coordinator.Coordinate(), SingleInstanceCoordinator::Outcome::primary);
    EXPECT_TRUE(coordinator.HoldsLock());
    ASSERT_TRUE(coordinator.IsListening());
    const RawExchange exchange = ExchangeWithServer(name, "korv-instance-v1|1.0.0|n|4242\n");
    EXPECT_EQ(exchange.received, "korv-instance-ack-v1|1.0.0|n|" + std::to_string(::getpid()) + "\n");
}

}  // namespace
}  // namespace korv::host::linux_client
