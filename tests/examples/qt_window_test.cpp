/// The example with a window: the program itself, whose main() the build renames, is shown on a
/// display of its own, clicked and closed.
#include "support/bus_daemon.h"
#include "support/child_process.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QTest>
#include <QTimer>
#include <QtGlobal>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>

int example_main(int argc, char** argv);

namespace tarn::test {
namespace {

/// What is done with the window, one step each time the one before has come true.
struct step {
    const char* name;
    std::function<bool(QWidget&)> done;
};
std::deque<step>& steps() {
    static std::deque<step> instance;
    return instance;
}

QString text_of(const QWidget& window, int number) {
    return window.findChildren<QLabel*>().at(number)->text();
}

void take_steps() {
    const auto windows = QApplication::topLevelWidgets();
    if (windows.isEmpty() || !windows.front()->isVisible()) {
        return;
    }
    while (!steps().empty() && steps().front().done(*windows.front())) {
        steps().pop_front();
    }
    if (steps().empty()) {
        windows.front()->close();
    }
}

/// Called by Qt as soon as the example has made its application object.
void begin() {
    auto* const look = new QTimer(QCoreApplication::instance());
    QObject::connect(look, &QTimer::timeout, take_steps);
    look->start(10);
    // Reached only when the test fails.
    QTimer::singleShot(std::chrono::seconds(20), QCoreApplication::instance(), [] {
        ADD_FAILURE() << "never came true: " << steps().front().name;
        QCoreApplication::quit();
    });
}
Q_COREAPP_STARTUP_FUNCTION(begin)

/// A display that is there for this process alone, where there is a server for one.
std::unique_ptr<child_process> private_display() {
#ifdef TARN_TEST_XVFB
    auto server = std::make_unique<child_process>(
        std::vector<std::string>{TARN_TEST_XVFB, "-displayfd", "1", "-nolisten", "tcp"});
    const std::string display = ":" + server->wait_for_line("");
    qputenv("DISPLAY", display.c_str());
    qputenv("QT_QPA_PLATFORM", "xcb");
    return server;
#else
    qputenv("QT_QPA_PLATFORM", "offscreen");
    return nullptr;
#endif
}

TEST(QtExample, ShowsTheServiceAndCallsItAtAClick) {
    const bus_daemon daemon;
    const auto display = private_display();
    std::unique_ptr<child_process> service;
    steps() = {
        {"the service is missing",
         [&](QWidget& window) {
             if (text_of(window, 0) != "demo: Not found") {
                 return false;
             }
             service = std::make_unique<child_process>(std::vector<std::string>{TARN_TEST_SERVICE});
             service->wait_for_line("demo_service: ready");
             return true;
         }},
        {"the service is there, and the button is clicked",
         [](QWidget& window) {
             if (text_of(window, 0) != "demo is there") {
                 return false;
             }
             EXPECT_EQ(text_of(window, 1), "");
             QTest::mouseClick(window.findChild<QPushButton*>(), Qt::LeftButton);
             return true;
         }},
        {"it has answered",
         [](QWidget& window) {
             return text_of(window, 1) == "demo said hello";
         }},
    };
    char name[] = "qt";
    char* arguments[] = {name, nullptr};
    EXPECT_EQ(example_main(1, arguments), 0);
    EXPECT_TRUE(steps().empty());
}

} // namespace
} // namespace tarn::test
