// See yaml_text.h. The events of the YAML parser are written as JSON, for the one reader of
// documents.
#include "ctl/yaml_text.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>
#include <sstream>
#include <vector>

#include "admin/document/json_text.h"
#include "admin/error.h"
#include "model/text.h"

namespace keyview::ctl {

using nlohmann::json;
using nlohmann::ordered_json;

// ---- In -----------------------------------------------------------------------------------------

static bool ends_with(const std::string &text, const std::string &end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool has_yaml_name(const std::string &file) {
    return ends_with(file, ".yaml") || ends_with(file, ".yml");
}

static bool is_yaml(const std::string &file, const std::string &content) {
    if (has_yaml_name(file)) return true;
    const std::string line = content.substr(0, content.find('\n'));
    const size_t first = line.find_first_not_of(" \t\r");
    if (ends_with(file, ".json") || first == line.npos || strchr("{[", line[first]) != nullptr)
        return false;
    return line[first] == '#' || line.compare(first, 3, "---") == 0 || line[first] == '%' ||
           line.find(':') != line.npos;
}

// A number, true, false or null as JSON spells it.
static bool is_json_word(const std::string &text) {
    bool begins_so = !text.empty() && strchr("-0123456789tfn", text[0]) != nullptr;
    return begins_so && json::accept(text);
}

namespace {

class json_writer : public YAML::EventHandler {
  public:
    json_writer(std::string_view text, admin::problem_list *problems)
        : text_(text), problems_(problems) {}

    const std::string &written() const { return out_; }

    void OnDocumentStart(const YAML::Mark &mark) override {
        if (++documents_ > 1) refuse(mark, "begins a second document");
    }
    void OnDocumentEnd() override {}

    void OnAlias(const YAML::Mark &mark, YAML::anchor_t) override {
        refuse(mark, "is an alias, which documents do not have");
        add("null");
    }
    void OnNull(const YAML::Mark &mark, YAML::anchor_t anchor) override {
        check_node(mark, "", anchor);
        if (at_key()) refuse(mark, "is a key without a text");
        add("null");
    }
    void OnScalar(const YAML::Mark &mark, const std::string &tag, YAML::anchor_t anchor,
                  const std::string &value) override {
        check_node(mark, tag, anchor);
        bool plain = tag == "?" && !at_key() && is_json_word(value);
        add(plain ? value : json(value).dump(-1, ' ', false, json::error_handler_t::replace));
    }

    void OnSequenceStart(const YAML::Mark &mark, const std::string &tag, YAML::anchor_t anchor,
                         YAML::EmitterStyle::value) override {
        open(mark, tag, anchor, false);
    }
    void OnSequenceEnd() override { close("]"); }
    void OnMapStart(const YAML::Mark &mark, const std::string &tag, YAML::anchor_t anchor,
                    YAML::EmitterStyle::value) override {
        open(mark, tag, anchor, true);
    }
    void OnMapEnd() override { close("}"); }

    void refuse(const YAML::Mark &mark, const std::string &reason) {
        size_t offset = mark.pos < 0 ? 0 : static_cast<size_t>(mark.pos);
        problems_->add(admin::line_and_column(text_, offset), reason);
    }

  private:
    struct container {
        bool is_map;
        size_t texts = 0;  // keys and values so far
    };

    bool at_key() const {
        return !open_.empty() && open_.back().is_map && open_.back().texts % 2 == 0;
    }

    void check_node(const YAML::Mark &mark, const std::string &tag, YAML::anchor_t anchor) {
        if (anchor != 0) refuse(mark, "has an anchor, which documents do not have");
        if (!tag.empty() && tag != "?" && tag != "!")
            refuse(mark, "has a tag, which documents do not have");
    }

    void add(const std::string &text) {
        if (!open_.empty()) {
            container &in = open_.back();
            bool value = in.is_map && in.texts % 2 == 1;
            if (in.texts > 0) out_ += value ? ":" : ",";
            ++in.texts;
        }
        out_ += text;
    }

    void open(const YAML::Mark &mark, const std::string &tag, YAML::anchor_t anchor, bool is_map) {
        check_node(mark, tag, anchor);
        if (at_key()) refuse(mark, "is a key without a text");
        add(is_map ? "{" : "[");
        open_.push_back({is_map});
    }

    void close(const char *end) {
        open_.pop_back();
        out_ += end;
    }

    std::string_view text_;
    admin::problem_list *problems_;
    std::vector<container> open_;
    std::string out_;
    int documents_ = 0;
};

}  // namespace

// What YAML has no character for. The parser would take some of these bytes for the end.
static size_t first_foreign_byte(const std::string &content) {
    auto foreign = [](char byte) {
        return (static_cast<unsigned char>(byte) < 0x20 && strchr("\t\n\r", byte) == nullptr) ||
               byte == '\0' || byte == 0x7f;
    };
    size_t at = 0;
    for (std::string_view left = content; !left.empty();) {
        size_t length = model::first_character(left).length;
        if (length == 0 || foreign(left[0])) return at;
        left.remove_prefix(length);
        at += length;
    }
    return content.npos;
}

std::string json_text_of(const std::string &file, std::string content) {
    if (!is_yaml(file, content)) return content;
    admin::problem_list problems;
    json_writer writer(content, &problems);
    size_t foreign = first_foreign_byte(content);
    if (foreign != content.npos)
        problems.add(admin::line_and_column(content, foreign), "is no character of YAML");
    try {
        // The parser accepts a text that ends within a quoted word, but no end mark within one.
        bool line_ends = !content.empty() && content.back() == '\n';
        std::istringstream stream(content + (line_ends ? "...\n" : "\n...\n"));
        YAML::Parser parser(stream);
        while (problems.empty() && parser.HandleNextDocument(writer)) {
        }
    } catch (const YAML::Exception &error) {
        bool at_end = error.mark.pos >= static_cast<int64_t>(content.size());
        writer.refuse(error.mark, at_end ? "the text ends before what it began" : error.msg);
    }
    problems.throw_if_any("the document is no YAML that can be read; nothing was written");
    return writer.written();
}

// ---- Out ----------------------------------------------------------------------------------------

// What older readers of YAML take for something else is quoted, too.
static bool is_plain(const std::string &text) {
    static const char *const WORDS[] = {"true", "false", "null", "yes", "no",
                                        "on",   "off",   "y",    "n"};
    constexpr const char *FIRST = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_/";
    if (text.empty() || strchr(FIRST, text[0]) == nullptr) return false;
    std::string lower = text;
    std::transform(text.begin(), text.end(), lower.begin(), [](char c) {
        return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    });
    return text.find_first_not_of(std::string(FIRST) + "0123456789.-") == text.npos &&
           std::find(std::begin(WORDS), std::end(WORDS), lower) == std::end(WORDS);
}

static void emit(const ordered_json &value, YAML::Emitter *out) {
    if (value.is_object() && !value.empty()) {
        *out << YAML::BeginMap;
        for (const auto &[key, below] : value.items()) {
            *out << YAML::Key << key << YAML::Value;
            emit(below, out);
        }
        *out << YAML::EndMap;
    } else if (value.is_array() && !value.empty()) {
        *out << YAML::BeginSeq;
        for (const ordered_json &item : value)
            emit(item, out);
        *out << YAML::EndSeq;
    } else if (value.is_string()) {
        const auto &text = value.get_ref<const std::string &>();
        if (!is_plain(text)) *out << YAML::DoubleQuoted;
        *out << text;
    } else if (value.is_structured()) {
        *out << YAML::Flow;
        if (value.is_object()) *out << YAML::BeginMap << YAML::EndMap;
        if (value.is_array()) *out << YAML::BeginSeq << YAML::EndSeq;
    } else if (value.is_number()) {
        *out << value.dump();  // a plain word, as JSON spells it
    } else if (value.is_boolean()) {
        *out << value.get<bool>();
    } else {
        *out << YAML::LowerNull << YAML::Null;
    }
}

std::string yaml_of(const ordered_json &value, bool ascii) {
    YAML::Emitter out;
    (void)out.SetOutputCharset(ascii ? YAML::EscapeNonAscii : YAML::EmitNonAscii);
    emit(value, &out);
    return std::string(out.c_str(), out.size()) + "\n";
}

}  // namespace keyview::ctl
