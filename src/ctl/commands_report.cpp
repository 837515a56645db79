// report and graph: the cluster as a page for a browser, and one database as a picture.
#include "ctl/command.h"
#include "ctl/file_io.h"
#include "ctl/output.h"
#include "ctl/page.h"
#include "ctl/picture.h"
#include "ctl/session.h"

namespace keyview::ctl {

static exit_code run_report(const session &library, const given_names &names) {
    const tool &shared = library.shared;
    const std::string &file = names[0];
    if (shared.format != output_format::table && shared.format != output_format::html) {
        throw tool_error{EXIT_USAGE, "report writes a page", "", "another format was chosen",
                         "use -o html, or leave -o out; \"status\", \"show\" and \"lint\" with -o "
                         "json have the same for programs"};
    }
    refuse_own_file(file, shared.registry);
    const overview cluster = read_overview(library, "the cluster cannot be read");
    const std::string page = page_of(page_data_of(cluster, shared.registry), false);
    if (file == "-") {
        write_result(page);
    } else {
        replace_file(file, page);
    }
    return highest_code(cluster.databases);
}

static exit_code run_graph(const session &library, const given_names &names) {
    const output_format format = library.shared.format;
    if (format != output_format::table && format != output_format::svg &&
        format != output_format::dot) {
        throw tool_error{EXIT_USAGE, "graph draws a picture", "", "another format was chosen",
                         "use -o svg or -o dot; \"status\" with -o json has the same for programs"};
    }
    const auto found = library.read("database " + names[0] + " cannot be drawn",
                                    [&] { return library->fetch_db_config(names[0]); });
    write_result(format == output_format::dot ? dot_of(*found) : svg_of(*found));
    return EXIT_DONE;
}

void add_report_commands(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"report",
         "Write the cluster as a page for a browser: one file, with a map, each database and what "
         "lint finds. Exit code 8 if a database cannot be read; the page shows the others",
         "FILE", with_library<run_report>},
        {"graph", "Draw the map of a database: -o svg, which is the usual one, or dot", "DB",
         with_library<run_graph>},
    };
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
