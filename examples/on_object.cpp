// Follows a family of objects: prints those that are there and then each that appears or goes,
// until interrupted. When the bus goes, all are gone.
//
// Try: examples/on_object 'demo*' & examples/demo_service
#include <tarn/ext/app.h>
#include <tarn/ext/objects.h>
#include <tarn/ext/print.h>

#include <iostream>

int main(int argc, char** argv) {
    tarn::ext::app app;
    tarn::bus::options how;
    how.on_registered = [](const std::error_code& refused) {
        std::cout << (refused ? refused.message() : "these are all at present") << std::endl;
    };
    const auto objects = tarn::ext::on_object(
        app.bus(), argc > 1 ? argv[1] : "*",
        [](tarn::bus::presence what, const std::string& path, std::uint32_t) {
            std::cout << path << ' ' << what << std::endl;
        },
        how);
    return app.run_forever();
}
