// Chooses the mutant that KESTRA_MUTANT names, and keeps where programs come by in the file that KESTRA_MUTANT_SEEN
// names: shared memory, so that it stays whatever end a program comes to. Before any other code of a program or a DLL.
#include "mutant.h"

#include <cstdlib>

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace kestra::mutant {
namespace {

constexpr unsigned kMost = 1u << 16;
unsigned char unshared[kMost];

unsigned char* shared() noexcept {
#ifdef _WIN32
    char path[MAX_PATH];
    if (GetEnvironmentVariableA("KESTRA_MUTANT_SEEN", path, sizeof path) == 0) return unshared;
    const HANDLE file =
        CreateFileA(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return unshared;
    const HANDLE section = CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, kMost, nullptr);
    void* const view = section ? MapViewOfFile(section, FILE_MAP_ALL_ACCESS, 0, 0, kMost) : nullptr;
    if (section) CloseHandle(section);
    CloseHandle(file);
    return view ? static_cast<unsigned char*>(view) : unshared;
#else
    const char* const path = std::getenv("KESTRA_MUTANT_SEEN");
    const int file = path ? open(path, O_RDWR | O_CREAT, 0644) : -1;
    if (file < 0) return unshared;
    void* const view =
        ftruncate(file, kMost) == 0 ? mmap(nullptr, kMost, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0) : MAP_FAILED;
    close(file);
    return view != MAP_FAILED ? static_cast<unsigned char*>(view) : unshared;
#endif
}

int chosenOne() noexcept {
    const char* const number = std::getenv("KESTRA_MUTANT");
    return number ? std::atoi(number) : -1;
}

} // namespace

int chosen = -1;
unsigned char* seen = unshared;

__attribute__((constructor(101))) static void begin() {
    seen = shared();
    chosen = chosenOne();
}

} // namespace kestra::mutant
