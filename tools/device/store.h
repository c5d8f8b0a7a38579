/* store.h - the file that keeps what was written to the device, from one run to the next.
 * A key file of one group: only written keys stand in it, so that a short file can be written by hand. */
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include "tree.h"

struct Store {
    std::string path;          // empty: nothing is kept
    std::string text;          // what the file holds
    GKeyFile *kept = nullptr;  // the same, parsed; released by store_close
};

using Change = std::pair<std::string, std::string>;  // key, value

/* Opens the file, or makes it when it is missing, and puts its values into `tree`; a key that the tree lacks is added.
 * False, with the reason on standard error, when it cannot be read or made or is no such file: it is left as it is. */
bool store_open(Store &store, const std::string &path, Tree &tree);

/* Keeps the changes, all or none: the file is replaced as a whole, and on the disk before this returns (blocking).
 * True at once without a file. False, with the reason on standard error, when it could not be written; then file and
 * store are as before. */
bool store_keep(Store &store, const std::vector<Change> &changes);

void store_close(Store &store);
