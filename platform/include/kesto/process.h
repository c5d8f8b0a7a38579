/* process.h - the process frame: one D-Bus object, a start and a stop operation, and the main loop between them.
 * All calls belong to the main thread, but for kesto_mainloop_stop. */
#pragma once

#include <stdint.h>

#include <gio/gio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One per process. The owner of the process uses these two members; the rest of the object is the library's. */
typedef struct KestoProcess {
    void *priv;      /* the owner's, NULL at first; the library never touches it */
    int32_t setting; /* reserved; set it to 0 before anything is registered */
} KestoProcess;

/* Operations return 0 for success and -1 for failure. A start that fails does not end the process. */
typedef struct KestoOps {
    int (*reserved_first)(KestoProcess *process);
    int (*stop)(KestoProcess *process);  /* once, after the main loop has ended */
    int (*start)(KestoProcess *process); /* once, before the main loop runs */
    int (*reserved_last)(KestoProcess *process);
} KestoOps;

/* One exported method. A row with all three members NULL ends a table. */
typedef struct KestoDbusMethod {
    const char *name;
    /* Main thread. Must answer the invocation, whose user data is the process. */
    void (*handler)(GDBusMethodInvocation *invocation);
    const char *introspection; /* a <method> element whose only "%s" is filled with the name */
} KestoDbusMethod;

/* Connects to the session bus and takes `bus_name` at once, without queueing. `reserved` is 0.
 * Returns NULL when there is no bus, the name is taken, the bus does not answer, an argument is no proper name or
 * the object is exported already. Blocks for as long as that takes: connecting, being greeted and taking the name are
 * given up after 25 s each; connecting also about 1 s after a SIGINT or SIGTERM that the process keeps blocked. The
 * caller owns the result: kesto_process_destroy. */
KestoProcess *kesto_process_new(const char *bus_name, const char *object_path, const char *interface_name,
                                int reserved);

/* Registers the operations; the record is not copied and must outlive the process. 0, or -1 for a missing argument. */
int kesto_process_add_ops(KestoProcess *process, const KestoOps *ops);

/* Exports the methods on the object; the table is not copied and must outlive the process.
 * 0, or -1 when the table makes no valid interface or the object is already exported. */
int kesto_process_add_dbus_methods(KestoProcess *process, const KestoDbusMethod *methods);

/* Calls start, runs the main loop until kesto_mainloop_stop or until the bus or the name is lost, calls stop.
 * Returns 0, or -1 without a process. */
int kesto_process_run(KestoProcess *process);

/* Gives up the object and the name, releases the process and clears the caller's reference. */
void kesto_process_destroy(KestoProcess **process);

/* Asks the main loop to stop. From any thread, at any time: before the loop runs it then ends at once. */
void kesto_mainloop_stop(void);

#ifdef __cplusplus
}
#endif
