// Keeps the plug-in in the process once it is loaded, as its ELF twin is by -z nodelete. The host
// may free it at any time, and the OpenMP and thread runtimes inside may still have threads on
// their way out then, whose code must not be unmapped.
#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE self, DWORD reason, LPVOID /*reserved*/) {
  if (reason != DLL_PROCESS_ATTACH) return TRUE;
  HMODULE pinned = nullptr;
  return GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                            reinterpret_cast<LPCWSTR>(self), &pinned);
}
