/// What only the adapter for Qt has: the thread of an object, and event loops inside handlers.
#include "tarn/loops/qt_loop.h"

#include <gtest/gtest.h>

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <future>
#include <thread>

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

class QtLoop : public ::testing::Test {
protected:
    QCoreApplication& application() { return application_; }

private:
    int count_ = 1;
    char name_[5] = "test";
    char* arguments_[2] = {name_, nullptr};
    QCoreApplication application_{count_, arguments_};
};

TEST_F(QtLoop, RunsHandlersInTheThreadOfAnObject) {
    QThread worker;
    QObject context;
    context.moveToThread(&worker);
    auto adapter = std::make_unique<loops::qt_loop>(&context);
    std::promise<QThread*> ran_in;
    adapter->post([&] { ran_in.set_value(QThread::currentThread()); });
    worker.start();
    EXPECT_EQ(ran_in.get_future().get(), &worker);
    std::promise<QThread*> fired_in;
    const auto timer = adapter->create_timer();
    timer->set_handler([&] { fired_in.set_value(QThread::currentThread()); });
    timer->set_timeout(0s);
    EXPECT_EQ(fired_in.get_future().get(), &worker);
    worker.quit();
    worker.wait();
}

TEST_F(QtLoop, DestroyedByAnotherThreadBeginsNoFurtherTurn) {
    QThread worker;
    worker.start();
    QObject context;
    context.moveToThread(&worker);
    auto adapter = std::make_unique<loops::qt_loop>(&context);
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = held;
    // The thread is busy with something else while the adapter gets a task and goes.
    std::promise<void> busy;
    std::promise<void> free;
    QMetaObject::invokeMethod(&context, [&] {
        busy.set_value();
        free.get_future().wait();
    });
    busy.get_future().wait();
    adapter->post([held] { ADD_FAILURE() << "a handler ran after its loop was destroyed"; });
    held.reset();
    adapter.reset();
    EXPECT_FALSE(watch.expired()) << "destroyed here, and not by the thread of the handlers";
    free.set_value();
    worker.quit();
    worker.wait();
    EXPECT_TRUE(watch.expired());
}

TEST_F(QtLoop, DestroyedByAnotherThreadLastsUntilAHandlerThatRunsAnEventLoopHasReturned) {
    QThread worker;
    worker.start();
    QObject context;
    context.moveToThread(&worker);
    auto adapter = std::make_unique<loops::qt_loop>(&context);
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = held;
    std::promise<QEventLoop*> inside;
    std::promise<bool> kept;
    adapter->post([&, posts = adapter.get()] {
        posts->post([held] { ADD_FAILURE() << "a turn began after the loop was destroyed"; });
        held.reset();
        QEventLoop dialog;
        QTimer::singleShot(0, &dialog, [&] { inside.set_value(&dialog); });
        dialog.exec();
        kept.set_value(!watch.expired());
    });
    QEventLoop* const dialog = inside.get_future().get();
    adapter.reset();
    // Comes after what the adapter has left for the thread to do.
    QMetaObject::invokeMethod(dialog, "quit", Qt::QueuedConnection);
    EXPECT_TRUE(kept.get_future().get()) << "destroyed while its handler was running";
    worker.quit();
    worker.wait();
    EXPECT_TRUE(watch.expired());
}

TEST_F(QtLoop, HoldsHandlersUpWhileOneRunsAnEventLoopAndDoesNotSpin) {
    loops::qt_loop adapter;
    bool behind = false;
    bool ran_inside = false;
    int turns_inside = 0;
    adapter.post([&] {
        adapter.post([&behind] { behind = true; });
        QEventLoop dialog;
        QTimer::singleShot(200ms, &dialog, &QEventLoop::quit);
        QObject::connect(QCoreApplication::eventDispatcher(), &QAbstractEventDispatcher::awake,
                         &dialog, [&turns_inside] { ++turns_inside; });
        dialog.exec();
        ran_inside = behind;
    });
    adapter.post([] {});
    QEventLoop loop;
    QTimer look;
    QObject::connect(&look, &QTimer::timeout, &loop, [&] {
        if (behind) {
            loop.quit();
        }
    });
    look.start(2);
    QTimer::singleShot(20s, &loop, [&loop] { loop.exit(1); });
    EXPECT_EQ(loop.exec(), 0);
    EXPECT_FALSE(ran_inside);
    EXPECT_LT(turns_inside, 1000) << "the event loop inside found something to do all the time";
}

TEST(QtLoopAndApplication, MayOutliveTheApplication) {
    int count = 1;
    char name[] = "test";
    char* arguments[] = {name, nullptr};
    auto application = std::make_unique<QCoreApplication>(count, arguments);
    loops::qt_loop adapter;
    application.reset();
    adapter.post([] { ADD_FAILURE() << "there is no event loop to run this"; });
    const auto timer = adapter.create_timer();
    timer->set_timeout(0s);
}

} // namespace
} // namespace tarn::test
