// See manual.h.
#include "ctl/manual.h"

#include <CLI/CLI.hpp>
#include <sstream>
#include <string_view>
#include <utility>

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

static constexpr char DATE[] = "2026-11-26";  // of the pages' texts

static std::string head(const std::string &page, int section, const char *what) {
    std::string title = page;
    for (char &c : title)
        c = static_cast<char>(toupper(c));
    return ".TH " + title + " " + std::to_string(section) + " " + DATE +
           " \"keyview " KEYVIEW_VERSION "\"\n.SH NAME\n" + plain(page) + " \\- " + plain(what) +
           "\n";
}

// A line of text as lines of at most 80 characters, each of its sentences on a line of its own.
static std::string wrapped_line(const std::string &text) {
    std::string out, line;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const bool ends =
            !line.empty() && (line.size() + 1 + word.size() > 80 || line.back() == '.');
        if (ends) out += std::exchange(line, "") + "\n";
        if (line.empty() && !out.empty() && word[0] == '.') word.insert(0, "\\&");
        line += (line.empty() ? "" : " ") + word;
    }
    return out + line + "\n";
}

static std::string wrapped(const std::string &page) {
    std::string out, line;
    bool as_it_is = false;
    for (std::istringstream lines(page); std::getline(lines, line);) {
        if (line == ".nf" || line == ".fi") as_it_is = line == ".nf";
        const bool whole = as_it_is || line.empty() || line[0] == '.';
        out += whole ? line + "\n" : wrapped_line(line);
    }
    return out;
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

// By task, in an order in which they run one after the other.
static constexpr struct {
    const char *task, *command, *what;
} EXAMPLES[] = {
    {"Begin", "export KEYVIEW_REGISTRY=lmdb:/var/lib/keyview", "choose the registry"},
    {"Begin", "keyviewctl apply --dry-run cluster.json", "print what a document would change"},
    {"Begin", "keyviewctl apply cluster.json", "change it, in one transaction"},
    {"Begin", "keyviewctl doctor", "check everything from the settings to a lock"},
    {"Read", "keyviewctl status", "sum up the cluster"},
    {"Read", "keyviewctl status Sales", "a database on one screen"},
    {"Read", "keyviewctl show Sales -o json", "a whole record, for programs"},
    {"Read", "keyviewctl roster Sales reporting", "on which instances and nodes a service runs"},
    {"Read", "keyviewctl report report.html", "the cluster as a page for a browser"},
    {"Read", "keyviewctl graph Sales -o svg", "the map of a database as a picture"},
    {"Read", "keyviewctl tree DATABASE.DATABASES.sales", "the keys below one"},
    {"Read", "keyviewctl explain DATABASE.DATABASES.sales.ROLE", "what a key means, who reads it"},
    {"Change", "keyviewctl disable Sales --service reporting",
     "disable a service with all its instances"},
    {"Change", "keyviewctl role Sales PHYSICAL_STANDBY", "change the role of a database"},
    {"Change", "keyviewctl set DATABASE.DATABASES.sales.DOMAIN example.org", "set a key"},
    {"Change", "keyviewctl export cluster.yaml", "write all records as a document"},
    {"Change", "keyviewctl apply --prune --yes cluster.yaml",
     "apply it, and remove what it does not contain"},
    {"Observe", "keyviewctl status --follow", "the cluster on the whole screen, as it changes"},
    {"Observe", "keyviewctl watch DATABASE.DATABASES.sales", "follow changes as they happen"},
    {"Observe", "keyviewctl serve --for 1", "the same page over HTTP, live"},
    {"Observe", "keyviewctl lock list", "print who holds or awaits locks"},
    {"Back up", "keyviewctl backup saved", "save the whole tree as of one moment"},
    {"Back up", "keyviewctl diff saved", "compare with it: exit status 0 if they are equal"},
    {"Back up", "keyviewctl restore --force saved", "make the tree what it was"},
    {"Repair", "keyviewctl check", "look for damage"},
    {"Repair", "keyviewctl lint", "look for what readers misread, with the remedies"},
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
    std::string_view task;
    for (const auto &row : EXAMPLES) {
        if (row.task != task) out += std::string(".SS ") + row.task + "\n";
        task = row.task;
        out += term(row.command, row.what);
    }
    out += ".SH FILES\n" + term("~/.config/keyview/config", "the user's settings") +
           term("/etc/keyview/config", "the machine's settings") +
           plain(
               "Lines of \"name = value\"; \"keyviewctl config\" lists the names. A section "
               "[context.NAME] holds the settings of a context.") +
           "\n.SH SEE ALSO\n.BR keyview\\-backup (5),\n.BR keyview\\-config (5),\n"
           ".BR keyview\\-document (5),\n.BR keyview (7),\n.BR keyview\\-keys (7),\n"
           ".BR keyview\\-locks (7)\n";
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
    out += ".SH EXAMPLES\n" +
           term("keyviewctl explain DATABASE.DATABASES.sales.ROLE", "what a key means") +
           term("keyviewctl get DATABASE.DATABASES.sales.ROLE", "its value") +
           term("keyviewctl ls DATABASE.DATABASES.sales", "the keys below one");
    return out + ".SH SEE ALSO\n.BR keyviewctl (1),\n.BR keyview (7)\n";
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
    out +=
        ".SH EXAMPLES\nA document of one database, sales.json:\n.PP\n.nf\n" +
        plain(
            R"({"format": "keyview-cluster", "version": 1, "databases": [
  {"name": "Sales", "role": "PRIMARY", "enabled": true, "instances": [
    {"name": "Sales1", "node": "node1", "enabled": true}]}]})") +
        "\n.fi\n" + term("keyviewctl apply --dry-run sales.json", "what it would change") +
        term("keyviewctl apply sales.json", "create or change what it names") +
        term("keyviewctl export cluster.yaml", "write the whole tree as a document, here as YAML");
    return out + ".SH SEE ALSO\n.BR keyviewctl (1),\n.BR keyview\\-keys (7)\n";
}

std::string manual_page(const CLI::App &app, const std::string &page) {
    if (page == "keyviewctl") return wrapped(tool_page(app));
    if (page == "keyview-document") return wrapped(document_page());
    return page == "keyview-keys" ? wrapped(keys_page()) : "";
}

}  // namespace keyview::ctl
