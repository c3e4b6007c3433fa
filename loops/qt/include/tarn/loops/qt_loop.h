/// The client on the event loop of a Qt thread, Qt 5 or 6 (Debian: qtbase5-dev or qt6-base-dev).
#pragma once

#include "tarn/loops/nested_loop.h"

#include <QEvent>
#include <QObject>
#include <QPointer>
#include <QSocketNotifier>
#include <QThread>

#include <atomic>
#include <memory>
#include <utility>

namespace tarn::loops {

/// Runs the client's handlers in a thread that has Qt's event loop: the main thread of the
/// application, or a QThread. So they may use the widgets and objects of that thread.
///
/// It is made in a thread of Qt, once the application object is there. It is best destroyed in the
/// thread of its handlers (see nested_loop). Destroyed in another one while that runs, it begins no
/// further turn, and what was waiting is destroyed by that thread, after a turn that has begun. The
/// adapter may outlive the application object, as a static one does; it runs nothing then.
///
/// A handler that runs an event loop of its own (QDialog::exec()) holds up the handlers behind it
/// until that returns; QDialog::open() does not.
///
/// An exception of a handler ends the process (std::terminate), since Qt does not allow one to pass
/// through its event loop.
class qt_loop final : public nested_loop {
public:
    /// Watches from now on, in the thread of `context`, or in the calling one if that is null. The
    /// context itself is not kept.
    /// Errors: throws std::system_error when a descriptor cannot be had, and std::bad_alloc.
    explicit qt_loop(const QObject* context = nullptr)
        : watch_(new watch(inner())) {
        if (context != nullptr && context->thread() != watch_->thread()) {
            watch_->moveToThread(context->thread());
        }
    }

private:
    /// Takes the event itself, in place of a signal, whose signature differs between releases of
    /// Qt.
    class watch final : public QSocketNotifier {
    public:
        explicit watch(std::shared_ptr<epoll_loop> inner)
            : QSocketNotifier(inner->fd(), QSocketNotifier::Read)
            , inner_(std::move(inner)) {}

        void end() {
            ended_ = true;
            if (thread() == QThread::currentThread() || !thread()->isRunning()) {
                delete this;
            } else {
                deleteLater();
            }
        }

    protected:
        bool event(QEvent* event) override {
            if (event->type() != QEvent::SockAct) {
                return QSocketNotifier::event(event);
            }
            if (ended_ || busy_) {
                // A handler runs an event loop, which would find the descriptor readable for ever.
                setEnabled(false);
                return true;
            }
            busy_ = true;
            // The event loop of a handler deletes the watch when another thread has ended it.
            const auto inner = inner_;
            const QPointer<QObject> kept(this);
            run_turn(*inner);
            if (kept) {
                busy_ = false;
                setEnabled(true);
            }
            return true;
        }

    private:
        static void run_turn(epoll_loop& inner) noexcept { inner.dispatch(); }

        // Held here as well: it goes with the watch, which may go in another thread.
        const std::shared_ptr<epoll_loop> inner_;
        bool busy_ = false;
        std::atomic<bool> ended_{false};
    };

    struct ender {
        void operator()(watch* ended) const { ended->end(); }
    };

    const std::unique_ptr<watch, ender> watch_;
};

} // namespace tarn::loops
