// See manual.h.
#include "ctl/manual.h"

#include <CLI/CLI.hpp>

#include "admin/care/findings.h"
#include "admin/document/meanings.h"
#include "ctl/exit_codes.h"

namespace keyview::ctl {

// A text in which nothing is a command of roff.
static std::string plain(const std::string &text) {
    std::string out;
    for (char c : text) {
        const char *escape = c == '\\' ? "\\e" : c == '-' ? "\\-" : c == '\'' ? "\\(aq" : nullptr;
        out += escape != nullptr ? escape : std::string(1, c);
    }
    return out.empty() || out[0] != '.' ? out : "\\&" + out;
}

static std::string head(const char *page, int section, const char *what) {
    return std::string(".TH ") + page + " " + std::to_string(section) +
           " \"\" \"keyview " KEYVIEW_VERSION "\"\n.SH NAME\n" + plain(page) + " \\- " +
           plain(what) + "\n";
}

static std::string term(const std::string &name, const std::string &text) {
    return ".TP\n.B " + plain(name) + "\n" + plain(text) + "\n";
}

// ---- keyviewctl(1) ------------------------------------------------------------------------------

static std::string options_of(const CLI::App &command) {
    std::string out;
    for (const CLI::Option *option : command.get_options()) {
        std::string name = option->get_name(option->get_positional(), true);
        if (name.rfind("-h", 0) != 0) out += term(name, option->get_description());
    }
    return out;
}

static std::string commands_of(const CLI::App &app, const std::string &before) {
    std::string out;
    for (const CLI::App *command : app.get_subcommands(nullptr)) {
        if (command->get_group().empty()) continue;
        std::string name = before + command->get_name();
        out += ".SS " + plain(name) + "\n" + plain(command->get_description()) + ".\n";
        out += options_of(*command) + commands_of(*command, name + " ");
    }
    return out;
}

// The way of a new user.
static constexpr struct {
    const char *command, *what;
} EXAMPLES[] = {
    {"export KEYVIEW_REGISTRY=lmdb:/var/lib/keyview", "choose the registry"},
    {"keyviewctl apply --dry-run cluster.json", "see what a document would do"},
    {"keyviewctl apply cluster.json", "do it, in one transaction"},
    {"keyviewctl status", "sum up the cluster"},
    {"keyviewctl status Sales", "see a database on one screen"},
    {"keyviewctl disable Sales --service reporting", "disable a service with all its instances"},
    {"keyviewctl watch DATABASE.DATABASES.sales", "follow its changes"},
    {"keyviewctl backup saved", "save the whole tree"},
    {"keyviewctl diff saved", "compare with it"},
    {"keyviewctl restore --force saved", "bring it back"},
};

static std::string tool_page(const CLI::App &app) {
    std::string out = head("keyviewctl", 1, "administers the key tree of a database cluster");
    out += ".SH SYNOPSIS\n.B keyviewctl\n[\\fIoptions\\fR] \\fIcommand\\fR [\\fIarguments\\fR]\n";
    out += ".SH OPTIONS\nThey may precede or follow any command.\n" + options_of(app);
    out += ".SH COMMANDS\n" + commands_of(app, "");
    out += ".SH EXIT STATUS\nThe same for every command.\n";
    for (const exit_row &row : exit_rows())
        out += term(std::to_string(row.code), std::string(row.meaning) + ". Do: " + row.todo + ".");
    out += ".SH FINDINGS\nOf check, lint and export.\n";
    for (const admin::finding_row &row : admin::finding_rows()) {
        std::string by = row.by_check ? ", check" : "";
        by += std::string(row.by_lint ? ", lint" : "") + (row.by_export ? ", export" : "");
        out += term(row.name, std::string(row.meaning) + ". Found by " + by.substr(2) +
                                  "; lint proposes: " + row.remedy + ".");
    }
    out += ".SH EXAMPLES\n";
    for (const auto &row : EXAMPLES)
        out += term(row.command, row.what);
    out += ".SH FILES\n" + term("~/.config/keyview/config", "the user's settings") +
           term("/etc/keyview/config", "the machine's settings") +
           plain(
               "Lines of \"name = value\"; \"keyviewctl config\" lists the names. A section "
               "[context.NAME] holds the settings of a context.") +
           "\n.SH SEE ALSO\n.BR keyview\\-document (5),\n.BR keyview\\-keys (7)\n";
    return out;
}

// ---- keyview-keys(7) ----------------------------------------------------------------------------

static std::string keys_page() {
    std::string out = head("keyview-keys", 7, "the keys of a database cluster's configuration");
    out += ".SH DESCRIPTION\n" +
           plain(
               "A path is made of elements joined by \".\". Names in it, here in <>, are in lower "
               "case; a \".\" in the name of a service is a \"*\".") +
           "\n.SH KEYS\n";
    for (const admin::key_meaning &row : admin::key_meanings()) {
        out += ".SS " + plain(row.path) + "\n" + plain(row.meaning) + ".\n";
        out += term("Stored", row.encoding) + term("Written by", row.written_by) +
               term("Read by", row.read_by) + term("Without it", row.absence);
    }
    return out + ".SH SEE ALSO\n.BR keyviewctl (1)\n";
}

// ---- keyview-document(5) ------------------------------------------------------------------------

static std::string document_page() {
    std::string out = head("keyview-document", 5, "what a key tree holds, as JSON or YAML");
    out +=
        ".SH DESCRIPTION\n" +
        plain(
            "A cluster document is a JSON object with \"format\": \"keyview-cluster\", "
            "\"version\": 1 and up to three lists of records: \"databases\", \"stg\" and "
            "\"nodeapps\". Each record has a \"name\", an entry of \"stg\" a \"scope\", too. What "
            "a document does not mention, apply leaves as it is; with --prune it removes "
            "it. A faulty document is refused as a whole, with the position of each fault. A string "
            "that is no UTF-8 is null, and is stored in base64 under its field's name with _base64 "
            "appended; in a list, at its index in such a second list. The same document may be "
            "YAML, without anchors, aliases and tags; words that are no JSON are strings there.") +
        "\n.SH FIELDS\n";
    std::string record;
    for (const admin::document_field &row : admin::document_fields()) {
        if (row.record != record) out += ".SS " + plain(row.record) + "\n";
        record = row.record;
        out += term(
            row.field + " (" + row.type + ")",
            row.key + (row.limit == 0 ? "" : "; up to " + std::to_string(row.limit) + " bytes"));
    }
    return out + ".SH SEE ALSO\n.BR keyviewctl (1),\n.BR keyview\\-keys (7)\n";
}

std::string manual_page(const CLI::App &app, const std::string &page) {
    if (page == "keyviewctl") return tool_page(app);
    if (page == "keyview-document") return document_page();
    return page == "keyview-keys" ? keys_page() : "";
}

}  // namespace keyview::ctl
