/* What the compiler's start files (crti, crtbeginS, crtendS) gave the shared
 * object, reduced to what it uses: the handle that ties atexit(app_fini) to
 * this object, and the call that runs such handlers when the object is
 * unloaded before exit. The start files also look up the profiler and
 * transactional-memory hooks at every load (four symbols searched through
 * every library of the process, none of them ever present); this object has
 * neither, so it links without them (-nostartfiles). */
extern void __cxa_finalize(void *dso);

__attribute__((visibility("hidden"))) void *__dso_handle = &__dso_handle;

static void run_exit_handlers(void) { __cxa_finalize(&__dso_handle); }

__attribute__((section(".fini_array"), used)) static void (*const kelo_fini_entry)(void) = run_exit_handlers;
