// Structures within structures, optional members and vectors, sent to "demo" and read from its
// echo; and what is reported when a reply is not of the expected form.
#include <tarn/ext/app.h>
#include <tarn/ext/fields.h>

#include <iostream>

struct port {
    std::string name;
    std::optional<int> speed; // left out of the table when it has no value
};
TARN_FIELDS(port, name, speed)

struct network {
    std::string name;
    std::vector<port> ports;
    std::optional<port> uplink;
};
TARN_FIELDS(network, name, ports, uplink)

struct other_network { // expects another form of the same table
    std::vector<std::map<std::string, int>> ports;
};
TARN_FIELDS(other_network, ports)

int main() {
    tarn::ext::app app;
    const network lan{"lan", {{"lan1", 1000}, {"lan2", std::nullopt}}, port{"wan", 2500}};
    app.call("demo", "echo", lan, [&](const network& back) {
        std::cout << back.name << ": " << back.ports.size() << " ports, " << back.ports.at(1).name
                  << (back.ports[1].speed ? " is up" : " is down") << ", uplink "
                  << (back.uplink ? back.uplink->name : "none") << std::endl;
        app.call("demo", "echo", lan, [](const tarn::ext::result<other_network>& other) {
            std::cout << other.message() << std::endl; // names the field
        });
    });
    return app.run();
}
