/* Two libraries: guestBase() is in the one that the other, with guestValue(), needs. */
#if defined(_WIN32)
#define GUEST_API __declspec(dllexport)
#else
#define GUEST_API
#endif

GUEST_API int guestBase(void);
#if defined(GUEST_BASE)
int guestBase(void) { return 40; }
#else
GUEST_API int guestValue(void);
int guestValue(void) { return guestBase() + 2; }
#endif
