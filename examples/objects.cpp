// Lists the objects whose path matches the pattern (all without one), with their methods and the
// fields that these expect.
//
// Try: examples/objects 'network*'
#include <tarn/ext/app.h>
#include <tarn/ext/objects.h>
#include <tarn/ext/print.h>
#include <tarn/ext/watch.h>

#include <iostream>

void print(const tarn::bus::object_info& object) {
    std::cout << object.path << '\n';
    for (const auto& method : object.methods) {
        std::cout << "    " << method.name << '(';
        const char* separator = "";
        for (const auto& field : method.fields) {
            std::cout << separator << field.name << ": " << field.type;
            separator = ", ";
        }
        std::cout << ")\n";
    }
}

int main(int argc, char** argv) {
    tarn::ext::app app;
    const std::string pattern = argc > 1 ? argv[1] : "*";
    const auto states = tarn::ext::watch(app.bus(), [&](tarn::client::state now) {
        if (now == tarn::client::state::connected) {
            tarn::ext::objects(app.bus(), pattern,
                               [&](const tarn::ext::result<tarn::ext::object_list>& found) {
                                   for (const auto& object : found.value()) { // throws: run() is 1
                                       print(object);
                                   }
                                   app.stop();
                               });
        }
    });
    return app.run();
}
