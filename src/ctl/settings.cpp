// See settings.h.
#include "ctl/settings.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <set>
#include <utility>

#include "ctl/file_io.h"
#include "ctl/output.h"
#include "ctl/suggest.h"
#include "ctl/terminal.h"
#include "model/path.h"

namespace keyview::ctl {

static constexpr const char *MACHINE_FILE = "/etc/keyview/config";

namespace {

struct settings_file {
    std::string name;
    std::map<std::string, std::string> values;  // by "registry" or "context.test.registry"
    std::set<std::string> contexts;             // that have a section, be it empty
};

}  // namespace

std::string user_settings_file() {
    std::string folder = environment("XDG_CONFIG_HOME");
    if (folder.empty()) folder = environment("HOME") + "/.config";
    return folder + "/keyview/config";
}

// ---- A file -------------------------------------------------------------------------------------

static constexpr const char *UNUSABLE = "the settings cannot be used";
static constexpr const char *BLANKS = " \t\r";

// The text of a file; "" if there is none, which is also assumed below a folder that the user may
// not search: HOME may be another user's.
static std::string text_of_file(const std::string &name) {
    struct stat found = {};
    bool known = stat(name.c_str(), &found) == 0;
    if (!known && (errno == ENOENT || errno == ENOTDIR || errno == EACCES)) return "";
    if (!known || S_ISREG(found.st_mode)) return read_file(name);
    throw tool_error{EXIT_USAGE, UNUSABLE, name, "it is not a regular file",
                     "replace it by a file with lines of \"name = value\", or remove it"};
}

// The sign that some editors begin a file with.
static constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";

static std::string_view trimmed(std::string_view text) {
    size_t first = text.find_first_not_of(BLANKS);
    if (first == text.npos) return {};
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

static std::string quoted(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

// '\0' if a value has none.
static char opening_quote(std::string_view value) {
    bool quoted = !value.empty() && (value[0] == '"' || value[0] == '\'');
    return quoted ? value[0] : '\0';
}

// A value without the remark behind it.
static std::string_view without_remark(std::string_view value) {
    char quote = opening_quote(value);
    size_t from = quote != '\0' ? std::min(value.find(quote, 1), value.size()) : 0;
    for (std::string_view remark : {" #", "\t#", " ;", "\t;"})
        value = trimmed(value.substr(0, value.find(remark, from)));
    return value;
}

namespace {

// One file, line by line. Every line that has no meaning is a problem.
class settings_reader {
  public:
    settings_reader(settings_file *file, const std::vector<std::string> &names)
        : file_(file), names_(names) {}

    admin::problem_list read(std::string_view text) {
        if (text.substr(0, BYTE_ORDER_MARK.size()) == BYTE_ORDER_MARK)
            text.remove_prefix(BYTE_ORDER_MARK.size());
        while (!text.empty()) {
            size_t end = std::min(text.find('\n'), text.size());
            ++line_;
            read_line(trimmed(text.substr(0, end)));
            text.remove_prefix(std::min(end + 1, text.size()));
        }
        return problems_;
    }

  private:
    void refuse(const std::string &reason) {
        problems_.add("line " + std::to_string(line_), reason);
    }

    std::string meant(std::string_view word) const {
        std::string near = nearest(std::string(word), names_);
        return near.empty() ? "; the settings are " + all_names() : "; did you mean " + near + "?";
    }

    std::string all_names() const {
        std::string out;
        for (const std::string &name : names_)
            out += (out.empty() ? "" : ", ") + name;
        return out;
    }

    void read_line(std::string_view line) {
        if (line.empty() || line[0] == '#' || line[0] == ';') return;
        auto control = [](unsigned char byte) { return byte < 0x20 && byte != '\t'; };
        if (std::any_of(line.begin(), line.end(), control))
            return refuse("has a control character");
        if (line[0] == '[') return start_section(line);
        size_t equals = line.find('=');
        if (equals == line.npos) {
            std::string_view first = line.substr(0, line.find_first_of(": \t"));
            return refuse(quoted(line) + " is no line of \"name = value\"" + meant(first));
        }
        read_setting(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
    }

    void start_section(std::string_view line) {
        section_ = "unknown.";  // its lines are not refused as well
        if (line.back() != ']') return refuse(quoted(line) + " lacks its \"]\"");
        constexpr std::string_view HEAD = "context.";
        std::string_view name = trimmed(line.substr(1, line.size() - 2));
        if (name.substr(0, HEAD.size()) != HEAD) {
            size_t dot = name.find('.');
            std::string context(dot == name.npos ? name : name.substr(dot + 1));
            if (context.empty()) context = "NAME";
            return refuse(quoted(line) + " is no section; did you mean [context." + context + "]?");
        }
        if (name.size() == HEAD.size()) return refuse(quoted(line) + " names no context");
        section_ = std::string(name) + ".";
        file_->contexts.emplace(name.substr(HEAD.size()));
        note_first(section_, quoted(line));
    }

    void read_setting(std::string_view name, std::string_view value) {
        if (std::find(names_.begin(), names_.end(), name) == names_.end())
            return refuse(quoted(name) + " is no setting" + meant(name));
        if (!section_.empty() && name == names_[0])
            return refuse("a context cannot choose another one");
        if (!take_value(&value)) return refuse("the value has a quote without its partner");
        if (note_first(section_ + std::string(name), quoted(name)))
            file_->values[section_ + std::string(name)] = value;
    }

    // False if it was there before, which is a problem.
    bool note_first(const std::string &key, const std::string &shown) {
        auto [first, fresh] = lines_.emplace(key, line_);
        if (!fresh)
            refuse(shown + " is there twice, first in line " + std::to_string(first->second));
        return fresh;
    }

    // Without its quotes and without the remark behind it.
    static bool take_value(std::string_view *value) {
        *value = without_remark(*value);
        char quote = opening_quote(*value);
        if (quote == '\0') return value->empty() || (value->back() != '"' && value->back() != '\'');
        if (value->size() < 2 || value->find(quote, 1) != value->size() - 1) return false;
        *value = value->substr(1, value->size() - 2);
        return true;
    }

    settings_file *file_;
    const std::vector<std::string> &names_;  // the context's first
    admin::problem_list problems_;
    size_t line_ = 0;
    std::string section_;  // such as "context.test."
    std::map<std::string, size_t> lines_;
};

}  // namespace

static settings_file read_settings(const std::string &name, const std::vector<std::string> &names) {
    settings_file file = {name, {}, {}};
    admin::problem_list wrong = settings_reader(&file, names).read(text_of_file(name));
    if (wrong.empty()) return file;
    throw tool_error{EXIT_USAGE,
                     UNUSABLE,
                     name,
                     "",
                     "correct the lines: settings are \"name = value\", a context begins with "
                     "[context.NAME]",
                     wrong.kept(),
                     wrong.more()};
}

// ---- All of them --------------------------------------------------------------------------------

namespace {

class search {
  public:
    explicit search(const std::vector<std::string> &names)
        : files_{read_settings(user_settings_file(), names), read_settings(MACHINE_FILE, names)} {}

    void find(setting *wanted, const setting &context) const {
        std::string below = "context." + context.value + ".";
        bool named = !context.value.empty(), first = named && context.origin == "option";
        bool found = set(wanted, wanted->option, "option") ||
                     (first && find_in_files(wanted, below)) ||
                     set(wanted, environment(wanted->variable), wanted->variable) ||
                     (named && find_in_files(wanted, below)) || find_in_files(wanted, "");
        if (!found) (void)set(wanted, wanted->fallback, "default");
    }

    bool has_context(const std::string &name) const {
        return std::any_of(std::begin(files_), std::end(files_), [&](const settings_file &file) {
            return file.contexts.count(name) > 0;
        });
    }

    // The user's go before the machine's.
    std::map<std::string, known_context> contexts() const {
        std::map<std::string, known_context> out;
        for (const settings_file &file : files_) {
            for (const std::string &name : file.contexts) {
                auto registry = file.values.find("context." + name + ".registry");
                const bool known = registry != file.values.end();
                out.emplace(name, known_context{name, known ? registry->second : "", file.name});
            }
        }
        return out;
    }

  private:
    static bool set(setting *wanted, const std::string &value, const std::string &origin) {
        wanted->value = value;
        wanted->origin = origin;
        return !value.empty();
    }

    bool find_in_files(setting *wanted, const std::string &head) const {
        for (const settings_file &file : files_) {
            auto found = file.values.find(head + wanted->name);
            if (found != file.values.end() && set(wanted, found->second, file.name)) return true;
        }
        return false;
    }

    settings_file files_[2];
};

}  // namespace

static std::vector<std::string> setting_names() {
    settings any;
    std::vector<std::string> names;
    for (const setting *one : any.all())
        names.emplace_back(one->name);
    return names;
}

void settings::resolve(bool any_context) {
    search files(setting_names());
    files.find(&context, {"", "", ""});
    if (!any_context && !context.value.empty() && !files.has_context(context.value)) {
        throw tool_error{EXIT_USAGE, "there is no context " + context.value, user_settings_file(),
                         "no settings file has a section [context." + context.value + "]",
                         "\"keyviewctl config\" shows where settings come from"};
    }
    for (setting *one : all())
        if (one != &context) files.find(one, context);
}

// ---- Contexts -----------------------------------------------------------------------------------

std::vector<known_context> known_contexts() {
    std::vector<known_context> out;
    for (auto &[name, one] : search(setting_names()).contexts())
        out.push_back(one);
    return out;
}

// Where the value of the usual context is in the text, without the remark behind it; its end and no
// bytes if there is none.
static std::pair<size_t, size_t> usual_context_in(std::string_view text) {
    const bool marked = text.substr(0, BYTE_ORDER_MARK.size()) == BYTE_ORDER_MARK;
    for (size_t at = marked ? BYTE_ORDER_MARK.size() : 0; at < text.size();) {
        size_t end = std::min(text.find('\n', at), text.size());
        std::string_view line = text.substr(at, end - at);
        size_t equals = line.find('=');
        if (trimmed(line).substr(0, 1) == "[") break;
        if (equals != line.npos && trimmed(line.substr(0, equals)) == "context") {
            std::string_view value = without_remark(trimmed(line.substr(equals + 1)));
            if (value.empty()) return {at + equals + 1, 0};
            return {static_cast<size_t>(value.data() - text.data()), value.size()};
        }
        at = end + 1;
    }
    return {text.size(), 0};
}

void set_usual_context(const std::string &name) {
    const std::string file = user_settings_file();
    std::string text = text_of_file(file);
    const char *quote = name.find('"') == name.npos ? "\"" : "'";
    bool plain = name.find_first_of(" \t#;'\"") == name.npos;
    const std::string value = plain ? name : quote + name + quote;
    auto [at, size] = usual_context_in(text);
    if (at == text.size()) {
        bool marked = text.compare(0, BYTE_ORDER_MARK.size(), BYTE_ORDER_MARK) == 0;
        text.insert(marked ? BYTE_ORDER_MARK.size() : 0, "context = " + value + "\n");
    } else {
        text.replace(at, size, size == 0 ? " " + value : value);
    }
    std::error_code ignored;  // the file then reports it
    std::filesystem::create_directories(std::filesystem::path(file).parent_path(), ignored);
    replace_file(file, text);
}

}  // namespace keyview::ctl
