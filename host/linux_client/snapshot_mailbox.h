#pragma once

#include "core/snapshot.h"

#include <QEvent>

#include <cstdint>
#include <memory>
#include <mutex>

class QObject;

namespace korv::host::linux_client {

// The hand-over from the engine's thread to the GUI thread: one pointer and at most one queued
// event. A GUI that falls behind loses old samples, never the newest, and cannot slow the engine.
class SnapshotMailbox {
public:
    // The receiver gets one event of DeliveryEventType() whenever a snapshot waits and none is queued.
    // It must outlive the mailbox or its Close(), whichever comes first.
    explicit SnapshotMailbox(QObject* receiver);

    SnapshotMailbox(const SnapshotMailbox&) = delete;
    SnapshotMailbox& operator=(const SnapshotMailbox&) = delete;

    // The custom event type, registered with the toolkit once per process.
    static QEvent::Type DeliveryEventType();

    // Engine thread: replaces the waiting snapshot and posts an event if none is queued. Does
    // nothing once closed.
    void Post(std::shared_ptr<const core::SystemSnapshot> snapshot);

    // GUI thread, on the event: clears the queued mark and takes the waiting snapshot out. A
    // snapshot that fails the coherence check is counted and dropped, so the result is either null
    // or coherent.
    std::shared_ptr<const core::SystemSnapshot> TakeForDelivery();

    // Drops the waiting snapshot, clears the queued mark and refuses later posts.
    void Close();

    bool DeliveryQueued() const;
    std::uint64_t IncoherentDropped() const;

private:
    QObject* receiver_;
    mutable std::mutex mutex_;
    std::shared_ptr<const core::SystemSnapshot> pending_;
    bool deliveryQueued_ = false;
    bool closed_ = false;
    std::uint64_t incoherentDropped_ = 0;
};

}  // namespace korv::host::linux_client
