#include "store.h"

#include <cstdio>

static constexpr const char *group = "Values";
static constexpr const char *empty_store = "[Values]\n";
static constexpr int file_mode = 0600;  // passwords stand in it

static bool complain(const Store &store, const char *what, const char *reason) {
    fprintf(stderr, "kesto-device: %s %s: %s\n", what, store.path.c_str(), reason);
    return false;
}

static bool parse(Store &store, GError **error) {
    store_close(store);
    store.kept = g_key_file_new();
    return g_key_file_load_from_data(store.kept, store.text.data(), store.text.size(), G_KEY_FILE_KEEP_COMMENTS, error);
}

static bool replace_file(const Store &store, const std::string &text) {
    g_autoptr(GError) error = nullptr;
    if (g_file_set_contents_full(store.path.c_str(), text.data(), static_cast<gssize>(text.size()),
                                 G_FILE_SET_CONTENTS_CONSISTENT, file_mode, &error))
        return true;
    return complain(store, "cannot write", error->message);
}

static bool read_file(Store &store) {
    g_autofree char *text = nullptr;
    gsize length_bytes = 0;
    g_autoptr(GError) error = nullptr;
    if (!g_file_get_contents(store.path.c_str(), &text, &length_bytes, &error)) {
        if (!g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT))
            return complain(store, "cannot read", error->message);
        store.text = empty_store;
        return replace_file(store, store.text);  // now, so that a bad path is found before the first write
    }
    if (!g_utf8_validate_len(text, length_bytes, nullptr)) return complain(store, "broken store", "not UTF-8 text");
    store.text.assign(text, length_bytes);
    if (store.text.empty()) store.text = empty_store;  // as mktemp makes it
    return true;
}

/* The values that the file keeps, each read before the first is used. */
static bool read_values(const Store &store, std::vector<Change> &values) {
    g_autoptr(GError) error = nullptr;
    g_auto(GStrv) keys = g_key_file_get_keys(store.kept, group, nullptr, &error);
    if (!keys) return complain(store, "broken store", error->message);
    for (char **key = keys; *key; key++) {
        g_autofree char *value = g_key_file_get_string(store.kept, group, *key, &error);
        if (error) return complain(store, "broken store", error->message);
        if (**key != '/') return complain(store, "broken store", "a key that does not begin with \"/\"");
        values.emplace_back(*key, value);
    }
    return true;
}

bool store_open(Store &store, const std::string &path, Tree &tree) {
    store.path = path;
    if (!read_file(store)) return false;
    g_autoptr(GError) error = nullptr;
    if (!parse(store, &error)) return complain(store, "broken store", error->message);
    std::vector<Change> values;
    if (!read_values(store, values)) return false;
    for (const auto &[key, value] : values) tree[key] = value;
    return true;
}

void store_close(Store &store) { g_clear_pointer(&store.kept, g_key_file_unref); }

bool store_keep(Store &store, const std::vector<Change> &changes) {
    if (store.path.empty() || changes.empty()) return true;
    for (const auto &[key, value] : changes) g_key_file_set_string(store.kept, group, key.c_str(), value.c_str());
    gsize length_bytes = 0;
    g_autofree char *data = g_key_file_to_data(store.kept, &length_bytes, nullptr);
    const std::string text(data, length_bytes);
    if (!replace_file(store, text)) {
        parse(store, nullptr);  // back to what the file holds
        return false;
    }
    store.text = text;
    return true;
}
