// A window shows whether the object "demo" is there, and asks it for an echo at a click.
#include <tarn/loops/qt_loop.h>
#include <tarn/tarn.h>

#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    // Static, since the client lives until the process ends and needs it until then.
    static const auto loop = std::make_shared<tarn::loops::qt_loop>();
    tarn::client& bus = tarn::client::get_instance(loop);

    QWidget window;
    QVBoxLayout column(&window);
    QLabel state("no bus");
    QPushButton button("Say hello");
    QLabel answer;
    column.addWidget(&state);
    column.addWidget(&button);
    column.addWidget(&answer);

    // Handlers run in this thread, so they may use the widgets.
    const auto echo = [&bus](QLabel& shown, const QString& text) {
        const auto show = [&shown, text](const auto& /*replies*/, const std::error_code& failed) {
            shown.setText(failed ? QString::fromStdString("demo: " + failed.message()) : text);
        };
        bus.invoke("demo", "echo", {{"msg", text.toStdString()}}, show, std::chrono::seconds(5));
    };
    QObject::connect(&button, &QPushButton::clicked, [&] { echo(answer, "demo said hello"); });
    QTimer every_second;
    QObject::connect(&every_second, &QTimer::timeout, [&] { echo(state, "demo is there"); });
    every_second.start(std::chrono::seconds(1));

    const tarn::utils::scoped_link connection =
        bus.auto_connect([](long long) { return std::chrono::seconds(1); });
    window.show();
    const int status = QApplication::exec();
    bus.cancel(); // no handler runs after this one, which would use the window
    return status;
}
