/// Names in C and C++ sources.
#include "names.h"

#include <cctype>
#include <sstream>
#include <stdexcept>

namespace bus_names {
namespace {

using tokens = std::vector<std::string>;

bool begins_name(char c) {
    return std::isalpha(static_cast<unsigned char>(c)) != 0 || c == '_';
}

bool is_name(const std::string& token) {
    return !token.empty() && begins_name(token[0]);
}

// Where the text that begins with the quote at `at` ends.
std::size_t end_of_text(const std::string& source, std::size_t at) {
    const char quote = source[at];
    for (++at; at < source.size() && source[at] != quote; ++at) {
        at += source[at] == '\\' ? 1 : 0;
    }
    return at + 1;
}

// Likewise of a raw one, R"mark(...)mark".
std::size_t end_of_raw_text(const std::string& source, std::size_t at) {
    const std::size_t open = source.find('(', at);
    if (open == std::string::npos) {
        return source.size();
    }
    const std::string close = ")" + source.substr(at + 1, open - at - 1) + '"';
    const std::size_t end = source.find(close, open);
    return end == std::string::npos ? source.size() : end + close.size();
}

// Without comments, and with every text and character as "".
std::string bare(const std::string& source) {
    std::string left;
    for (std::size_t at = 0; at < source.size();) {
        const char c = source[at];
        const char before = left.empty() ? ' ' : left.back();
        const bool in_word = std::isalnum(static_cast<unsigned char>(before)) != 0;
        std::size_t end = at + 1;
        if (source.compare(at, 2, "//") == 0) {
            end = source.find('\n', at);
        } else if (source.compare(at, 2, "/*") == 0) {
            end = source.find("*/", at + 2);
            end = end == std::string::npos ? end : end + 2;
            left += ' ';
        } else if (c == '"' && before == 'R') {
            end = end_of_raw_text(source, at);
            left.back() = '"';
            left += '"';
        } else if (c == '"' || (c == '\'' && !in_word)) {
            end = end_of_text(source, at);
            left += "\"\"";
        } else if (c != '\'') { // which parts the digits of a number
            left += c;
        }
        at = end;
    }
    return left;
}

// Names, numbers and single signs; a text is one sign.
tokens split(const std::string& text) {
    tokens all;
    for (std::size_t at = 0; at < text.size();) {
        const char c = text[at];
        std::size_t end = at + 1;
        if (begins_name(c) || std::isdigit(static_cast<unsigned char>(c)) != 0) {
            while (end < text.size() && (begins_name(text[end]) ||
                                         std::isdigit(static_cast<unsigned char>(text[end])))) {
                ++end;
            }
            all.push_back(text.substr(at, end - at));
        } else if (c == '"') {
            end = at + 2;
            all.emplace_back("\"");
        } else if (std::isspace(static_cast<unsigned char>(c)) == 0) {
            all.emplace_back(1, c);
        }
        at = end;
    }
    return all;
}

// Reads declarations one after the other; `at_` is the next token.
class reader {
public:
    reader(tokens all, std::vector<declared>& found)
        : all_(std::move(all))
        , found_(found) {}

    void read_header() {
        while (at_ < all_.size()) {
            if (take("}") || take(";")) {
                continue; // the end of extern "C"
            }
            if (peek(0) == "extern" && peek(1) == "\"" && peek(2) == "{") {
                at_ += 3;
            } else {
                read_declaration();
            }
        }
    }

private:
    const std::string& peek(std::size_t ahead) const {
        static const std::string none;
        return at_ + ahead < all_.size() ? all_[at_ + ahead] : none;
    }
    bool take(const char* token) {
        if (peek(0) != token) {
            return false;
        }
        ++at_;
        return true;
    }
    void add(kind what, const std::string& name, const std::string& scope = "") {
        found_.push_back({what, name, scope});
    }

    // Goes behind the bracket that closes the one at `at_`.
    void skip_brackets() {
        int depth = 0;
        do {
            const std::string& token = peek(0);
            if (token.empty()) {
                throw std::runtime_error("a bracket that is not closed");
            }
            depth += token == "(" || token == "{" || token == "[" ? 1 : 0;
            depth -= token == ")" || token == "}" || token == "]" ? 1 : 0;
            ++at_;
        } while (depth > 0);
    }

    void skip_attributes() {
        while (take("__attribute__")) {
            skip_brackets();
        }
    }

    void read_enumerators(const std::string& scope) {
        while (!take("}")) {
            add(kind::enumerator, peek(0), scope);
            while (peek(0) != "," && peek(0) != "}") {
                ++at_;
            }
            take(",");
        }
    }

    // What is left of a declaration of one name, up to the sign that ends it.
    std::string read_name(bool& called) {
        std::string name;
        called = false;
        while (peek(0) != ";" && peek(0) != "{" && peek(0) != "=" && peek(0) != ",") {
            if (peek(0).empty()) {
                throw std::runtime_error("a declaration that is not ended");
            }
            skip_attributes();
            if (peek(0) == "(" && peek(1) == "*") {
                name = peek(2); // a pointer to a function
                skip_brackets();
                skip_brackets();
            } else if (peek(0) == "(") {
                if (name == "EXPORT") {
                    add(kind::callable, name);
                    name = peek(1);
                    at_ += 3;
                    continue;
                }
                called = true;
                skip_brackets();
            } else if (peek(0) == "[") {
                skip_brackets();
            } else if (peek(0) != ";") {
                name = is_name(peek(0)) ? peek(0) : name;
                ++at_;
            }
        }
        return name;
    }

    void read_members(const std::string& scope) {
        while (!take("}")) {
            if ((peek(0) == "struct" || peek(0) == "union") && peek(1) == "{") {
                at_ += 2;
                read_members(scope);
                if (!take(";")) {
                    bool called;
                    add(kind::member, read_name(called), scope);
                    take(";");
                }
                continue;
            }
            bool called;
            do {
                add(kind::member, read_name(called), scope);
            } while (take(","));
            if (!take(";")) {
                throw std::runtime_error("a member of an unknown form");
            }
        }
    }

    void read_declaration() {
        if (take("typedef")) {
            bool called;
            add(kind::type, read_name(called));
            return;
        }
        if ((peek(0) == "struct" || peek(0) == "enum") && is_name(peek(1)) &&
            (peek(2) == "{" || peek(2) == ";")) {
            const bool structure = peek(0) == "struct";
            const std::string tag = peek(1);
            add(structure ? kind::structure : kind::enumeration, tag);
            const bool defined = peek(2) == "{";
            at_ += 3;
            if (defined && structure) {
                read_members(tag);
            } else if (defined) {
                read_enumerators(tag);
            }
            skip_attributes();
            return;
        }
        if (peek(0) == "enum" && peek(1) == "{") {
            at_ += 2;
            read_enumerators("");
            return;
        }
        bool called;
        const std::string name = read_name(called);
        add(called ? kind::callable : kind::variable, name);
        while (peek(0) != ";" && peek(0) != "{") {
            ++at_;
        }
        if (peek(0) == "{") {
            skip_brackets();
        }
    }

    const tokens all_;
    std::vector<declared>& found_;
    std::size_t at_ = 0;
};

// Takes every line of the preprocessor out of `text`, with those that continue it.
std::vector<std::string> take_directives(std::string& text) {
    std::vector<std::string> all;
    std::string left;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        const std::size_t start = line.find_first_not_of(" \t");
        if (start == std::string::npos || line[start] != '#') {
            left += line + '\n';
            continue;
        }
        std::string whole = line.substr(start + 1);
        while (!whole.empty() && whole.back() == '\\' && std::getline(lines, line)) {
            whole.back() = ' ';
            whole += line;
        }
        all.push_back(whole);
    }
    text = left;
    return all;
}

} // namespace

std::vector<declared> declared_in(const std::string& header) {
    std::string text = bare(header);
    std::vector<declared> found;
    for (const std::string& directive : take_directives(text)) {
        const tokens all = split(directive);
        if (all.size() > 1 && all[0] == "define") {
            found.push_back({kind::callable, all[1], ""});
        }
    }
    reader(split(text), found).read_header();
    return found;
}

std::vector<used> used_in(const std::string& source) {
    std::string text = bare(source);
    for (const std::string& directive : take_directives(text)) {
        const tokens all = split(directive);
        // The name of a header is no name of the language.
        text += all.empty() || all[0] == "include" ? "" : directive + '\n';
    }
    const tokens all = split(text);
    std::vector<used> found;
    for (std::size_t at = 0; at < all.size(); ++at) {
        if (is_name(all[at])) {
            found.push_back({all[at], at + 1 < all.size() && all[at + 1] == "("});
        }
    }
    return found;
}

} // namespace bus_names
