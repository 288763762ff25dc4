// A library that needs another one: see own_folder_test.cpp.
extern "C" __declspec(dllimport) int needed();

extern "C" __declspec(dllexport) int needing() {
    return needed();
}
