/// tarn list: what is on the bus, in the shapes of ubus.
#include "commands.h"
#include "one_shot.h"
#include "output.h"
#include "program.h"

#include <tarn/error.h>

#include <vector>

namespace tools {

namespace {

using field_type = tarn::bus::field_type;

/// The names that ubus has for types. It has none for the others, such as a double.
const char* name_of(field_type type) {
    switch (type) {
    case field_type::array:
        return "Array";
    case field_type::table:
        return "Table";
    case field_type::string:
        return "String";
    case field_type::int32:
        return "Integer";
    case field_type::int8:
        return "Boolean";
    default:
        return "(unknown)";
    }
}

/// {"text":"String","loud":"Boolean"}, in the publisher's order.
std::string fields_of(const tarn::bus::method_info& method) {
    std::string text;
    for (const auto& field : method.fields) {
        text += (text.empty() ? "" : ",") + quoted(field.name) + ":\"" + name_of(field.type) + '"';
    }
    return '{' + text + '}';
}

/// One line for a script, which the layouts for readers make hard to parse.
std::string json_of(const tarn::bus::object_info& object) {
    std::string methods;
    for (const auto& method : object.methods) {
        methods += (methods.empty() ? "" : ",") + quoted(method.name) + ':' + fields_of(method);
    }
    return "{\"path\":" + quoted(object.path) + ",\"id\":\"" + hex_id(object.id) +
           "\",\"methods\":{" + methods + "}}";
}

void print(const tarn::bus::object_info& object, const options& given, const output& out) {
    if (given.json) {
        return out.line(json_of(object));
    }
    const std::string path = out.paint(colour::name, out.plain(object.path));
    if (given.simplified || !given.verbose) {
        return out.line(path);
    }
    out.line('\'' + path + "' @" + hex_id(object.id));
    for (const auto& method : object.methods) {
        out.line('\t' + out.paint(colour::detail, quoted(method.name)) + ':' + fields_of(method));
    }
}

} // namespace

int list(const options& given) {
    if (given.words.size() > 1) {
        throw usage_error("list takes [PATTERN] [-v] [-s] [-t SECONDS]");
    }
    const std::string pattern = given.words.empty() ? "*" : given.words[0];
    refuse_empty(pattern);
    const output out({false, !given.json && output::wants_colours()});
    return run_once(given, pattern, [&](tarn::bus& bus, const outcome_handler& done) {
        return bus.objects(pattern, [&, done](const auto& objects, const std::error_code& status) {
            // A bus without any object is nothing to complain about, unless one was asked for.
            if (!status && objects.empty() && !given.words.empty()) {
                return done(tarn::error::msg::not_found);
            }
            for (const auto& object : objects) {
                print(object, given, out);
            }
            done(status);
        });
    });
}

} // namespace tools
