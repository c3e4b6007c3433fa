/// Drives the adapter for Qt, in the main thread.
#pragma once

#include "tarn/loops/qt_loop.h"

#include "loops/drivers/driver.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

namespace tarn::test {

class loop_driver : public driver<loops::qt_loop> {
public:
    loop_driver() { make_loop(); }

    /// In place of the adapter that there is.
    void make_loop() {
        drop_loop();
        adapter_ = std::make_unique<loops::qt_loop>();
    }

    bool run_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
        QTimer alarm;
        alarm.setTimerType(Qt::PreciseTimer);
        alarm.start(static_cast<int>(pulse.count()));
        QEventLoop turns;
        return step_until(done, limit,
                          [&turns] { turns.processEvents(QEventLoop::WaitForMoreEvents); });
    }

private:
    // The one of the process, which has to have one.
    static QCoreApplication& application() {
        static int count = 1;
        static char name[] = "test";
        static char* arguments[] = {name, nullptr};
        static QCoreApplication instance(count, arguments);
        return instance;
    }

    QCoreApplication& application_ = application();
};

} // namespace tarn::test
