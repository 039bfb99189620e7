#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>

#include <QByteArray>
#include <QObject>
#include <QString>

class QLocalServer;
class QLocalSocket;

namespace korv::host::linux_client {

inline constexpr char kInstanceToken[] = "1.0.0";
inline constexpr char kInstanceRequestTag[] = "korv-instance-v1";
inline constexpr char kInstanceAckTag[] = "korv-instance-ack-v1";

// "korv-task-manager-<uid>-<token>", with every character of the token that is not a letter or a
// digit replaced by "-", so that the name is safe as a socket and file name.
QString InstanceServerName(uid_t userId, const QString& instanceToken);

QByteArray InstanceRequestLine(const QString& instanceToken, const QString& nonce, qint64 processId);
QByteArray InstanceAckLine(const QString& instanceToken, const QString& nonce, qint64 processId);

// The nonce of a valid request from another process, or nothing.
std::optional<QString> ValidateInstanceRequest(const QString& line, const QString& instanceToken, qint64 ownProcessId);

// The peer's process id when a reply has the right shape, token and nonce and names a process
// other than this one; whether that process exists and belongs to the user is checked apart.
std::optional<qint64> ValidateInstanceAck(const QString& line, const QString& instanceToken, const QString& nonce,
                                          qint64 ownProcessId);

// True when "<procRoot>/<pid>" exists and is owned by the user.
bool ProcessOwnedByUser(const QString& procRoot, qint64 processId, uid_t userId);

// Opens the lock file and takes its exclusive lock. The descriptor is refused (and -1 returned)
// unless the file is a regular file owned by the user that no one else holds locked; a symbolic
// link is never followed.
int AcquireInstanceLock(const QString& path, uid_t userId);

struct InstanceCoordinatorConfig {
    QString instanceToken = QString::fromLatin1(kInstanceToken);
    uid_t userId = 0;      // the real user id
    qint64 processId = 0;  // this process
    QString serverName;    // empty: InstanceServerName(userId, instanceToken)
    QString lockFolder;    // empty: the runtime location, else the configuration location
    QString procRoot = QStringLiteral("/proc");
    int handOverWindowMs = 2000;
    int retryPauseMs = 50;

    static InstanceCoordinatorConfig ForThisProcess();
};

// Decides whether this start becomes the running instance or hands over to one that already runs,
// and as the running instance answers later starts. Runs on the main thread; a hand-over attempt
// blocks it for at most about 2.4 seconds. No failure here is fatal: at worst the process runs as
// a second primary.
class SingleInstanceCoordinator : public QObject {
    Q_OBJECT

public:
    enum class Outcome { primary, handedOver };

    explicit SingleInstanceCoordinator(InstanceCoordinatorConfig config, QObject* parent = nullptr);
    ~SingleInstanceCoordinator() override;

    SingleInstanceCoordinator(const SingleInstanceCoordinator&) = delete;
    SingleInstanceCoordinator& operator=(const SingleInstanceCoordinator&) = delete;

    Outcome Coordinate();

    // One try of the client side: true when a running instance acknowledged this start.
    bool TryHandOver();

    // Called for each accepted start of another instance. A start that arrived before the callback
    // existed is delivered as soon as it is set.
    void SetActivationCallback(std::function<void()> callback);

    QString ServerName() const { return config_.serverName; }
    QString LockFilePath() const { return lockPath_; }
    bool HoldsLock() const { return lockDescriptor_ >= 0; }
    bool IsListening() const;
    bool PendingActivation() const { return pendingActivation_; }

private:
    bool HandOverWithRetries();
    bool StartServer();
    void AcceptConnections();
    void HandleLine(QLocalSocket* socket);

    InstanceCoordinatorConfig config_;
    QString lockPath_;
    QLocalServer* server_ = nullptr;
    std::function<void()> activationCallback_;
    bool pendingActivation_ = false;
    int lockDescriptor_ = -1;
};

}  // namespace korv::host::linux_client
