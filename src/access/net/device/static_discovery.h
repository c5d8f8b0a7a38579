/* static_discovery.h - the device's discovery data beside the replies: one small file under /tmp for each value, for
 * other programs on the device, and the eight-field text that clients may present at login. Network thread only; may
 * block for the D-Bus calls of loading the identity. */
#pragma once

struct AccessServer;

/* Computes the text and writes the files when the device identity is complete; otherwise only loads what it can of the
 * identity. */
void compute_static_discovery(AccessServer *server);

/* Computes it if that has not succeeded yet. */
void ensure_static_discovery(AccessServer *server);

/* The text, of at most 8191 bytes; empty until it could be computed. The same buffer as long as the process lives. */
const char *static_discovery_text();

/* Creates the file with the text, unless a file of that path is there already, and never through a symbolic link. A
 * file that cannot be opened is logged and left out. One that cannot be written whole is removed without a report, so
 * that a later start may write it. */
void write_file_once(const char *path, const char *text);
