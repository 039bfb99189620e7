#include "host/linux_client/snapshot_mailbox.h"

#include "core/snapshot_coherence.h"

#include <QCoreApplication>
#include <QObject>

namespace korv::host::linux_client {

SnapshotMailbox::SnapshotMailbox(QObject* receiver) : receiver_(receiver) {}

QEvent::Type SnapshotMailbox::DeliveryEventType() {
    static const QEvent::Type type = static_cast<QEvent::Type>(QEvent::registerEventType());
    return type;
}

void SnapshotMailbox::Post(std::shared_ptr<const core::SystemSnapshot> snapshot) {
    // Declared before the lock so that a dropped snapshot, of which this may be the last owner, is
    // freed after the mutex is released.
    std::shared_ptr<const core::SystemSnapshot> replaced;
    const std::lock_guard lock(mutex_);
    if (closed_) {
        return;
    }
    replaced = std::exchange(pending_, std::move(snapshot));
    if (!deliveryQueued_ && receiver_ != nullptr) {
        deliveryQueued_ = true;
        QCoreApplication::postEvent(receiver_, new QEvent(DeliveryEventType()));
    }
}

std::shared_ptr<const core::SystemSnapshot> SnapshotMailbox::TakeForDelivery() {
    std::shared_ptr<const core::SystemSnapshot> snapshot;
    {
        const std::lock_guard lock(mutex_);
        deliveryQueued_ = false;
        snapshot = std::move(pending_);
        pending_.reset();
    }
    if (snapshot == nullptr) {
        return nullptr;
    }
    if (!core::IsCoherent(*snapshot)) {
        const std::lock_guard lock(mutex_);
        ++incoherentDropped_;
        return nullptr;
    }
    return snapshot;
}

void SnapshotMailbox::Close() {
    std::shared_ptr<const core::SystemSnapshot> dropped;
    const std::lock_guard lock(mutex_);
    closed_ = true;
    deliveryQueued_ = false;
    dropped = std::move(pending_);
    pending_.reset();
}

bool SnapshotMailbox::DeliveryQueued() const {
    const std::lock_guard lock(mutex_);
    return deliveryQueued_;
}

std::uint64_t SnapshotMailbox::IncoherentDropped() const {
    const std::lock_guard lock(mutex_);
    return incoherentDropped_;
}

}  // namespace korv::host::linux_client
