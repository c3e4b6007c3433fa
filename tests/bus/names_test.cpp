/// The public headers of the bundled bus, and all that uses such headers, keep to the names that
/// libubox and libubus declare: tests/data/bus-names.tsv lists them, one a line, with their header,
/// kind, name and scope. What is written against other names compiles here and nowhere else.
#include "names.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <tuple>

namespace {

using bus_names::declared;
using bus_names::declared_in;
using bus_names::kind;
using bus_names::used;
using bus_names::used_in;
namespace fs = std::filesystem;

const fs::path root = TARN_SOURCE_FOLDER;

std::string text_of(const fs::path& path) {
    std::ifstream file(path);
    EXPECT_TRUE(file.good()) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

class known_names {
public:
    known_names() {
        static const std::map<std::string, kind> kinds{
            {"function", kind::callable}, {"prototype", kind::callable},
            {"macro", kind::callable},    {"variable", kind::variable},
            {"typedef", kind::type},      {"struct", kind::structure},
            {"enum", kind::enumeration},  {"enumerator", kind::enumerator},
            {"member", kind::member},
        };
        std::istringstream lines(text_of(fs::path(TARN_TEST_DATA) / "bus-names.tsv"));
        std::string line;
        std::getline(lines, line);
        EXPECT_EQ(line, "header\tkind\tname\tscope");
        while (std::getline(lines, line)) {
            std::istringstream columns(line + '\t');
            std::string header;
            std::string what;
            std::string name;
            std::string scope;
            std::getline(columns, header, '\t');
            std::getline(columns, what, '\t');
            std::getline(columns, name, '\t');
            std::getline(columns, scope, '\t');
            add(header, kinds.at(what), name, scope);
        }
        // Two forms that the table does not follow: names inside of EXPORT(), and an enumeration
        // without a tag.
        for (const char* name : {"avl_init", "avl_find", "avl_find_greaterequal",
                                 "avl_find_lessequal", "avl_insert", "avl_delete"}) {
            add("libubox/avl.h", kind::callable, name, "");
        }
        for (const char* name : {"UNSPEC", "NESTED", "BINARY", "STRING", "INT8", "INT16", "INT32",
                                 "INT64", "DOUBLE", "LAST"}) {
            add("libubox/blob.h", kind::enumerator, std::string("BLOB_ATTR_") + name, "");
        }
    }

    bool declares(const std::string& header, const declared& each) const {
        return rows_.count({header, each.what, each.name, each.scope}) != 0;
    }
    bool has(const std::string& name) const { return names_.count(name) != 0; }
    std::size_t size() const { return rows_.size(); }

    /// The names that the text of a header declares beyond the table.
    std::vector<std::string> beyond(const std::string& header, const std::string& text) const {
        std::vector<std::string> found;
        for (const declared& each : declared_in(text)) {
            if (!declares(header, each)) {
                found.push_back(each.scope.empty() ? each.name : each.scope + "." + each.name);
            }
        }
        return found;
    }

    /// Likewise the names of the libraries' families that a source uses.
    std::vector<std::string> beyond(const std::string& source) const {
        static const std::regex family("(blob|blobmsg|uloop|ubus)_.*|(BLOB|BLOBMSG|ULOOP|UBUS)_.*");
        static const std::regex family_of_functions("(avl|list)_.*");
        // Our own: variables and a type of the library. A private member ends in '_'.
        static const std::set<std::string> own{"ubus_ctx", "ubus_object_ctx", "blob_limit"};
        std::vector<std::string> found;
        for (const used& each : used_in(source)) {
            const bool theirs = std::regex_match(each.name, family) ||
                                (each.called && std::regex_match(each.name, family_of_functions));
            if (theirs && !has(each.name) && own.count(each.name) == 0 && each.name.back() != '_') {
                found.push_back(each.name);
            }
        }
        return found;
    }

private:
    void add(const std::string& header, kind what, const std::string& name,
             const std::string& scope) {
        rows_.emplace(header, what, name, scope);
        names_.insert(name);
    }

    std::set<std::tuple<std::string, kind, std::string, std::string>> rows_;
    std::set<std::string> names_;
};

using names = std::vector<std::string>;

bool is_source(const fs::path& path) {
    return path.extension() == ".h" || path.extension() == ".cpp" || path.extension() == ".c";
}

TEST(BusNames, TheBundledHeadersDeclareOnlyWhatTheLibrariesDeclare) {
    const known_names known;
    const fs::path include = root / "bus" / "include";
    int headers = 0;
    for (const auto& entry : fs::recursive_directory_iterator(include)) {
        if (is_source(entry.path())) {
            ++headers;
            const std::string header = fs::relative(entry.path(), include).generic_string();
            EXPECT_EQ(known.beyond(header, text_of(entry.path())), names()) << header;
        }
    }
    EXPECT_GE(headers, 8);
}

TEST(BusNames, SourcesUseOnlyWhatTheLibrariesDeclare) {
    const known_names known;
    // These are about the bundled bus itself.
    const std::set<fs::path> aside{root / "tests" / "bus", root / "fuzz" / "daemon.cpp",
                                   root / "fuzz" / "libubus.cpp", root / "fuzz" / "parsers.cpp"};
    int sources = 0;
    for (const char* folder : {"src", "loops", "tools", "examples", "fuzz", "tests"}) {
        for (fs::recursive_directory_iterator entry(root / folder), end; entry != end; ++entry) {
            if (aside.count(entry->path()) != 0) {
                entry.disable_recursion_pending();
            } else if (is_source(entry->path())) {
                ++sources;
                EXPECT_EQ(known.beyond(text_of(entry->path())), names()) << entry->path();
            }
        }
    }
    EXPECT_GT(sources, 100);
}

TEST(BusNames, EveryKindOfDeclarationIsFound) {
    const char* const header = R"(
        #pragma once
        #include <stdint.h>
        #ifdef __cplusplus
        extern "C" {
        #endif
        #define LIMIT 5u
        # define walk(pos, rem)  \
            for (int hidden = 0; rem; )
        /* int comment(void); */ // int line(void);
        struct forward;
        enum { NONE, SOME = 1 << 3, };
        enum tag { FIRST, LAST = FIRST };
        struct record {
            uint32_t number, more;
            char name[8];
            struct record* next;
            bool (*grow)(struct record* self, int by);
            struct { int inner; } nested;
            union { int one; int other; };
            char data[];
        } __attribute__((packed, aligned(4)));
        typedef void (*handler)(struct record* self, unsigned int events);
        typedef unsigned int number;
        extern bool flag;
        static inline struct record* get(const struct record* of) {
            if (of) { return (struct record*)of; }
            return "};" ? 0 : 0;
        }
        void* EXPORT(exported)(struct record*, handler cb);
        int old(void) __attribute__((deprecated("use another")));
        int plain(int (*callback)(int), char c);
        #ifdef __cplusplus
        }
        #endif
    )";
    names found;
    for (const declared& each : declared_in(header)) {
        found.push_back(std::to_string(static_cast<int>(each.what)) + " " +
                        (each.scope.empty() ? "" : each.scope + ".") + each.name);
    }
    const auto one = [](kind what, const std::string& name) {
        return std::to_string(static_cast<int>(what)) + " " + name;
    };
    EXPECT_EQ(found, (names{one(kind::callable, "LIMIT"),       one(kind::callable, "walk"),
                            one(kind::structure, "forward"),    one(kind::enumerator, "NONE"),
                            one(kind::enumerator, "SOME"),      one(kind::enumeration, "tag"),
                            one(kind::enumerator, "tag.FIRST"), one(kind::enumerator, "tag.LAST"),
                            one(kind::structure, "record"),     one(kind::member, "record.number"),
                            one(kind::member, "record.more"),   one(kind::member, "record.name"),
                            one(kind::member, "record.next"),   one(kind::member, "record.grow"),
                            one(kind::member, "record.inner"),  one(kind::member, "record.nested"),
                            one(kind::member, "record.one"),    one(kind::member, "record.other"),
                            one(kind::member, "record.data"),   one(kind::type, "handler"),
                            one(kind::type, "number"),          one(kind::variable, "flag"),
                            one(kind::callable, "get"),         one(kind::callable, "EXPORT"),
                            one(kind::callable, "exported"),    one(kind::callable, "old"),
                            one(kind::callable, "plain")}));
}

TEST(BusNames, ASlipInAHeaderIsNamed) {
    const known_names known;
    EXPECT_GT(known.size(), 500U);
    const char* const header = R"(
        #define BLOB_ATTR_ALIGN 4
        #define BLOB_BUF_MAX 0xffffff
        enum { BLOB_ATTR_UNSPEC, BLOB_ATTR_FLOAT };
        enum blob_mode { BLOB_MODE_ONE };
        struct blob_attr { uint32_t id_len; char payload[]; };
        typedef int blob_number;
        extern int blob_count;
        static inline uint32_t blob_be32(uint32_t value) { return value; }
        bool blob_buf_grow(struct blob_buf* buf, int required);
        bool blobmsg_check_attr(const struct blob_attr* attr, bool name);
    )";
    EXPECT_EQ(known.beyond("libubox/blob.h", header),
              (names{"BLOB_BUF_MAX", "BLOB_ATTR_FLOAT", "blob_mode", "blob_mode.BLOB_MODE_ONE",
                     "blob_attr.payload", "blob_number", "blob_count", "blob_be32",
                     // right, but in another header
                     "blobmsg_check_attr"}));
}

TEST(BusNames, ASlipInASourceIsNamed) {
    const known_names known;
    const char* const source = R"sample(
        #include "ubus_helpers.h"
        // blob_be64 in a comment, /* and */ "quotes
        #define WORD blob_be16(0)
        int main() {
            const char* text = "blob_be64(\"UBUS_MAX_MSGLEN\")"; // 'x'
            const char* raw = R"(blob_be64 " )";
            char quote = '"';
            ubus_objects_.clear();
            int list_size = 0, avl_depth = 1'000;
            return blob_be32(UBUS_MAX_MSGLEN) + list_length(&head) + blob_len(attr) + list_size;
        }
    )sample";
    EXPECT_EQ(known.beyond(source),
              (names{"blob_be32", "UBUS_MAX_MSGLEN", "list_length", "blob_be16"}));
}

} // namespace
