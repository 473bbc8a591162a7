#include "pretty_json.h"

#include <json/json.h>

#include <exception>
#include <memory>

namespace ksctl {

namespace {

constexpr const char* kBlanks = " \t\r\n";

bool is_json(std::string_view text) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = false; // a bare number or string is JSON, too
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    try {
        return reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
    } catch (const std::exception&) {
        return false; // nested too deeply
    }
}

// Writes valid JSON token by token.
class layout {
public:
    explicit layout(std::string_view text) : text_(text) {}

    std::string take() {
        while (skip_blanks()) {
            one_token();
        }
        out_ += '\n';
        return std::move(out_);
    }

private:
    // False = the text has ended.
    bool skip_blanks() {
        at_ = text_.find_first_not_of(kBlanks, at_);
        return at_ != std::string_view::npos;
    }

    void new_line() {
        out_ += '\n';
        out_.append(depth_ * 2, ' ');
    }

    void one_token() {
        const char c = text_[at_++];
        switch (c) {
        case '{':
        case '[':
            out_ += c;
            if (skip_blanks() && (text_[at_] == '}' || text_[at_] == ']')) {
                out_ += text_[at_++];
            } else {
                ++depth_;
                new_line();
            }
            break;
        case '}':
        case ']':
            --depth_;
            new_line();
            out_ += c;
            break;
        case ',':
            out_ += c;
            new_line();
            break;
        case ':':
            out_ += ": ";
            break;
        case '"':
            string();
            break;
        default:
            out_ += c;
            break;
        }
    }

    // The opening quote has been read.
    void string() {
        out_ += '"';
        for (bool escaped = false; at_ < text_.size(); ++at_) {
            const char c = text_[at_];
            out_ += c;
            if (c == '"' && !escaped) {
                ++at_;
                return;
            }
            escaped = c == '\\' && !escaped;
        }
    }

    std::string_view text_;
    size_t at_ = 0;
    size_t depth_ = 0;
    std::string out_;
};

} // namespace

std::string indent_json(std::string_view text) {
    return is_json(text) ? layout(text).take() : std::string(text);
}

} // namespace ksctl
