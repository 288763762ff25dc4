// A library that another one needs: see own_folder_test.cpp.
extern "C" __declspec(dllexport) int needed() {
    return 7;
}
