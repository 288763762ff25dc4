// What doctor takes. The two options without a help text are for the program's calls of itself.
#include "ctl/verbs.h"

#include <CLI/CLI.hpp>

namespace kestra::ctl {

void addDoctorOptions(CLI::App& verb, Options& options) {
    verb.add_flag("--installed", options.doctor.isInstalledOnly,
                  "looks at the module only, as an installer does; no card is needed");
    verb.add_flag("--ascii", options.doctor.ascii, "marks that every console can show: + X !");
    verb.add_option("--bundle", options.doctor.bundle,
                    "puts what it finds into this folder, with everything else that helps to help")
        ->type_name("FOLDER");
    verb.add_option("--probe", options.doctor.probe)->group("")->check(CLI::IsMember({"module", "video", "audio"}));
    verb.add_option("--probe-file", options.doctor.probeFile)->group("");
}

} // namespace kestra::ctl
