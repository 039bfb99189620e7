#include "host/linux_client/single_instance_coordinator.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>
#include <QThread>
#include <QTimer>
#include <QUuid>

namespace korv::host::linux_client {
namespace {

constexpr int kConnectWaitMs = 100;
constexpr int kWriteWaitMs = 100;
constexpr int kReplyWaitMs = 250;
constexpr int kServerConnectionLifetimeMs = 1000;
// A request is four short fields; anything longer without a line end is not a peer of ours.
constexpr qint64 kMaxLineBytes = 1024;

std::optional<qint64> ParseProcessId(const QString& text)
{
    if (text.isEmpty()) {
        return std::nullopt;
    }
    for (const QChar c : text) {
        if (c < QLatin1Char('0') || c > QLatin1Char('9')) {
            return std::nullopt;
        }
    }
    bool ok = false;
    const qint64 value = text.toLongLong(&ok);
    if (!ok || value < 1) {
        return std::nullopt;
    }
    return value;
}

QStringList SplitLine(const QString& line)
{
    return line.trimmed().split(QLatin1Char('|'));
}

QByteArray BuildLine(const char* tag, const QString& instanceToken, const QString& nonce, qint64 processId)
{
    return QStringLiteral("%1|%2|%3|%4\n")
        .arg(QLatin1String(tag), instanceToken, nonce, QString::number(processId))
        .toUtf8();
}

QString ResolveLockFolder()
{
    QString folder = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (folder.isEmpty()) {
        folder = QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation);
    }
    return folder;
}

}  // namespace

QString InstanceServerName(uid_t userId, const QString& instanceToken)
{
    QString safeToken = instanceToken;
    for (QChar& c : safeToken) {
        if (!c.isLetterOrNumber()) {
            c = QLatin1Char('-');
        }
    }
    return QStringLiteral("korv-task-manager-%1-%2").arg(QString::number(userId), safeToken);
}

QByteArray InstanceRequestLine(const QString& instanceToken, const QString& nonce, qint64 processId)
{
    return BuildLine(kInstanceRequestTag, instanceToken, nonce, processId);
}

QByteArray InstanceAckLine(const QString& instanceToken, const QString& nonce, qint64 processId)
{
    return BuildLine(kInstanceAckTag, instanceToken, nonce, processId);
}

std::optional<QString> ValidateInstanceRequest(const QString& line, const QString& instanceToken, qint64 ownProcessId)
{
    const QStringList fields = SplitLine(line);
    if (fields.size() != 4 || fields[0] != QLatin1String(kInstanceRequestTag) || fields[1] != instanceToken ||
        fields[2].isEmpty()) {
        return std::nullopt;
    }
    const std::optional<qint64> peer = ParseProcessId(fields[3]);
    if (!peer || *peer == ownProcessId) {
        return std::nullopt;
    }
    return fields[2];
}

std::optional<qint64> ValidateInstanceAck(const QString& line, const QString& instanceToken, const QString& nonce,
                                          qint64 ownProcessId)
{
    const QStringList fields = SplitLine(line);
    if (fields.size() != 4 || fields[0] != QLatin1String(kInstanceAckTag) || fields[1] != instanceToken ||
        nonce.isEmpty() || fields[2] != nonce) {
        return std::nullopt;
    }
    const std::optional<qint64> peer = ParseProcessId(fields[3]);
    if (!peer || *peer == ownProcessId) {
        return std::nullopt;
    }
    return peer;
}

bool ProcessOwnedByUser(const QString& procRoot, qint64 processId, uid_t userId)
{
    const QByteArray path = QFile::encodeName(procRoot + QLatin1Char('/') + QString::number(processId));
    struct stat info {};
    return ::stat(path.constData(), &info) == 0 && info.st_uid == userId;
}

int AcquireInstanceLock(const QString& path, uid_t userId)
{
    const QByteArray native = QFile::encodeName(path);
    const int descriptor = ::open(native.constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        return -1;
    }
    struct stat info {};
    const bool accepted = ::fstat(descriptor, &info) == 0 && info.st_uid == userId && S_ISREG(info.st_mode) &&
                          ::flock(descriptor, LOCK_EX | LOCK_NB) == 0;
    if (!accepted) {
        ::close(descriptor);
        return -1;
    }
    return descriptor;
}

InstanceCoordinatorConfig InstanceCoordinatorConfig::ForThisProcess()
{
    InstanceCoordinatorConfig config;
    config.userId = ::getuid();
    config.processId = ::getpid();
    return config;
}

SingleInstanceCoordinator::SingleInstanceCoordinator(InstanceCoordinatorConfig config, QObject* parent)
    : QObject(parent), config_(std::move(config))
{
    if (config_.serverName.isEmpty()) {
        config_.serverName = InstanceServerName(config_.userId, config_.instanceToken);
    }
}

SingleInstanceCoordinator::~SingleInstanceCoordinator()
{
    if (server_ != nullptr) {
        server_->close();
    }
    if (lockDescriptor_ >= 0) {
        ::close(lockDescriptor_);
    }
}

SingleInstanceCoordinator::Outcome SingleInstanceCoordinator::Coordinate()
{
    const QString folder = config_.lockFolder.isEmpty() ? ResolveLockFolder() : config_.lockFolder;
    if (!folder.isEmpty() && QDir().mkpath(folder)) {
        lockPath_ = QStringLiteral("%1/%2.instance").arg(folder, config_.serverName);
        lockDescriptor_ = AcquireInstanceLock(lockPath_, config_.userId);
    }
    // The lock is advisory: when it cannot be had and no running instance answers within the
    // window, this process becomes the primary after all, so a failed peer never keeps the user out.
    if (lockDescriptor_ < 0 && HandOverWithRetries()) {
        return Outcome::handedOver;
    }
    if (!StartServer() && TryHandOver()) {
        return Outcome::handedOver;
    }
    return Outcome::primary;
}

bool SingleInstanceCoordinator::HandOverWithRetries()
{
    QElapsedTimer elapsed;
    elapsed.start();
    while (elapsed.elapsed() < config_.handOverWindowMs) {
        if (TryHandOver()) {
            return true;
        }
        QThread::msleep(static_cast<unsigned long>(config_.retryPauseMs));
    }
    return false;
}

bool SingleInstanceCoordinator::TryHandOver()
{
    QLocalSocket socket;
    socket.connectToServer(config_.serverName, QIODevice::ReadWrite);
    if (!socket.waitForConnected(kConnectWaitMs)) {
        return false;
    }
    const QString nonce = QUuid::createUuid().toString(QUuid::WithoutBraces).toLower();
    const QByteArray request = InstanceRequestLine(config_.instanceToken, nonce, config_.processId);
    if (socket.write(request) != request.size()) {
        return false;
    }
    const QDeadlineTimer writeDeadline(kWriteWaitMs);
    while (socket.bytesToWrite() > 0) {
        if (!socket.waitForBytesWritten(static_cast<int>(writeDeadline.remainingTime()))) {
            return false;
        }
    }
    const QDeadlineTimer replyDeadline(kReplyWaitMs);
    while (!socket.canReadLine()) {
        if (replyDeadline.hasExpired() || !socket.waitForReadyRead(static_cast<int>(replyDeadline.remainingTime()))) {
            // A peer that wrote its reply and hung up at once still counts.
            if (!socket.canReadLine()) {
                return false;
            }
        }
    }
    const QString reply = QString::fromUtf8(socket.readLine(kMaxLineBytes));
    const std::optional<qint64> peer = ValidateInstanceAck(reply, config_.instanceToken, nonce, config_.processId);
    return peer && ProcessOwnedByUser(config_.procRoot, *peer, config_.userId);
}

bool SingleInstanceCoordinator::StartServer()
{
    QLocalServer::removeServer(config_.serverName);
    server_ = new QLocalServer(this);
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_->listen(config_.serverName)) {
        delete server_;
        server_ = nullptr;
        return false;
    }
    connect(server_, &QLocalServer::newConnection, this, &SingleInstanceCoordinator::AcceptConnections);
    return true;
}

bool SingleInstanceCoordinator::IsListening() const
{
    return server_ != nullptr && server_->isListening();
}

void SingleInstanceCoordinator::AcceptConnections()
{
    while (QLocalSocket* socket = server_->nextPendingConnection()) {
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] { HandleLine(socket); });
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        QTimer::singleShot(kServerConnectionLifetimeMs, socket, [socket] { socket->abort(); });
        if (socket->bytesAvailable() > 0) {
            HandleLine(socket);
        }
    }
}

void SingleInstanceCoordinator::HandleLine(QLocalSocket* socket)
{
    if (!socket->canReadLine()) {
        if (socket->bytesAvailable() > kMaxLineBytes) {
            socket->abort();
        }
        return;
    }
    const QString line = QString::fromUtf8(socket->readLine(kMaxLineBytes));
    const std::optional<QString> nonce = ValidateInstanceRequest(line, config_.instanceToken, config_.processId);
    if (!nonce) {
        return;  // no reply: the connection is left to its lifetime timer
    }
    if (activationCallback_) {
        activationCallback_();
    } else {
        pendingActivation_ = true;
    }
    socket->write(InstanceAckLine(config_.instanceToken, *nonce, config_.processId));
    socket->flush();
    socket->disconnectFromServer();
}

void SingleInstanceCoordinator::SetActivationCallback(std::function<void()> callback)
{
    activationCallback_ = std::move(callback);
    if (pendingActivation_ && activationCallback_) {
        pendingActivation_ = false;
        activationCallback_();
    }
}

}  // namespace korv::host::linux_client
