// What loading a module costs an application: from LoadLibrary to the address of its class factory's function, and its
// unloading, with the file in the system's cache. All modules in turns: in a bare program first, where the libraries
// that they need are loaded with them, then in one that has DirectShow loaded, as an application that captures has.
// Arguments: for each module "ours" or "peer", its name, its path.
#include "bench/report.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <windows.h>

namespace {

using namespace kestra::bench;

struct Module {
    Role role;
    std::string name;
    std::string path;
    std::vector<double> loadMs{}, unloadMs{};
};

[[noreturn]] void fail(const char* what, const Module& module) {
    std::fprintf(stderr, "load_time: %s: %s (error %lu)\n", module.path.c_str(), what, GetLastError());
    std::exit(1);
}

void loadOnce(Module& module) {
    using Clock = std::chrono::steady_clock;
    using Ms = std::chrono::duration<double, std::milli>;
    const auto begin = Clock::now();
    const HMODULE handle = LoadLibraryA(module.path.c_str());
    if (!handle) fail("does not load", module);
    if (!GetProcAddress(handle, "DllGetClassObject")) fail("has no class factory", module);
    const auto loaded = Clock::now();
    FreeLibrary(handle);
    const auto unloaded = Clock::now();
    if (GetModuleHandleA(module.path.c_str())) fail("stays loaded, so a second load would measure nothing", module);
    module.loadMs.push_back(Ms(loaded - begin).count());
    module.unloadMs.push_back(Ms(unloaded - loaded).count());
}

void measure(std::vector<Module>& modules, const char* group, Report& report) {
    const int rounds = fullOrShort(100, 2);
    for (int round = 0; round <= rounds; ++round)
        for (Module& module : modules) {
            loadOnce(module);
            if (round > 0) continue;
            module.loadMs.clear(); // the first one filled the caches
            module.unloadMs.clear();
        }
    std::printf("  %s\n", group);
    for (const Module& module : modules) {
        std::printf("    %-36s load %7.3f ms  unload %7.3f ms\n", module.name.c_str(), median(module.loadMs),
                    median(module.unloadMs));
        report.add({group, module.name, module.role, median(module.loadMs), "ms"});
    }
}

} // namespace

int main(int argc, char** argv) {
    std::vector<Module> modules;
    for (int i = 1; i + 2 < argc; i += 3)
        modules.push_back({argv[i] == std::string("ours") ? Role::Ours : Role::Peer, argv[i + 1], argv[i + 2]});
    if (modules.empty() || argc % 3 != 1) {
        std::fputs("usage: load_time ours|peer NAME PATH ...\n", stderr);
        return 1;
    }
    Report report("load time");
    measure(modules, "loading a module into a bare program", report);
    for (const char* library : {"quartz.dll", "devenum.dll", "comctl32.dll"})
        LoadLibraryA(library); // held on purpose
    measure(modules, "loading a module beside DirectShow", report);
    return 0;
}
