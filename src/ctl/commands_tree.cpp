// apply and export: a cluster document into the registry, and out of it.
#include <memory>

#include "ctl/command.h"
#include "ctl/file_io.h"
#include "ctl/output.h"
#include "host/if/keyview_admin.h"

namespace keyview::ctl {

static exit_code run_apply(const tool &shared, const std::string &file) {
    std::string document = read_file(file);
    admin::apply_result applied = admin::apply_document(document);
    bool invalid = applied.code == admin::status::content;
    check_result(applied, "the document is not applied",
                 invalid ? file_label(file) : shared.registry);
    if (shared.format == output_format::json) {
        view_fields counts = {{"created", number_view(static_cast<int64_t>(applied.created))},
                              {"replaced", number_view(static_cast<int64_t>(applied.replaced))}};
        show_result(shared.format, "apply", "keys", {std::move(counts)});
        return EXIT_DONE;
    }
    bool nothing = applied.created + applied.replaced == 0;
    write_result(nothing ? "nothing to change: the registry holds the document already\n"
                         : std::to_string(applied.created) + " keys created, " +
                               std::to_string(applied.replaced) + " changed\n");
    return EXIT_DONE;
}

static exit_code run_export(const tool &shared, const std::string &file) {
    admin::export_result exported = admin::export_document();
    check_result(exported, "the tree cannot be exported", shared.registry);
    if (file.empty() || file == "-") {
        write_result(exported.document);
    } else {
        replace_file(file, exported.document);
    }
    return EXIT_DONE;
}

void add_tree_commands(CLI::App *app, tool *shared) {
    auto source = std::make_shared<std::string>();
    CLI::App *apply = add_command(app, shared, "apply",
                                  "Put a cluster document into the registry, all of it or nothing",
                                  [shared, source] { return run_apply(*shared, *source); });
    apply->add_option("FILE", *source, "The document; - for standard input")->required();

    auto target = std::make_shared<std::string>();
    CLI::App *save = add_command(app, shared, "export", "Write the tree as a cluster document",
                                 [shared, target] { return run_export(*shared, *target); });
    save->add_option("FILE", *target, "Where to write it; standard output without it");
}

}  // namespace keyview::ctl
