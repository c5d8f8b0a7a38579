// The codec with any bytes: what it hands to the service keeps the contract, and every answer can be read again.
#include <kesto/proto.h>

#include "access.pb.h"
#include "target.h"

namespace wire = kesto::access::v1;

static void require_text(const char *text) { require(text == nullptr || g_utf8_validate(text, -1, nullptr)); }

static GVariant *on_read(Proto *, uint32_t flags, const char *key) {
    require_text(key);
    if ((flags & 1) != 0) return nullptr;
    return g_variant_new_variant((flags & 2) != 0 ? g_variant_new_string(key)
                                                  : g_variant_new_parsed("{'/a/Pin': %s, '/a/b': '2'}", key));
}

static int on_write(Proto *handle, uint32_t type, const char *key, const char *value) {
    require_text(key);
    require_text(value);
    proto_change(handle);
    return static_cast<int>(type);
}

static int on_multi_write(Proto *, uint32_t count, const char *const *keys, const char *const *values,
                          uint32_t *result_count, char ***results) {
    *results = g_new0(char *, count + 1);
    *result_count = count;
    for (uint32_t i = 0; i < count; ++i) {
        require_text(keys[i]);
        require_text(values[i]);
        (*results)[i] = g_strdup("OK");
    }
    return 0;
}

static GVariant *on_action(Proto *, const char *user_name, const char *password, int32_t, int32_t, int32_t, int32_t,
                           const char *discovery) {
    for (const char *text : {user_name, password, discovery}) require_text(text);
    return discovery == nullptr ? g_variant_new_parsed("({'ports': <(62001, 63001)>},)") : nullptr;
}

static void install(Proto *handle) {
    proto_set_discovery(handle, "@?D!");
    proto_set_cb_read(handle, on_read);
    proto_set_cb_auth(handle, [](Proto *, uint32_t operation, const char *key, uint32_t) {
        require_text(key);
        return operation == 2 ? 1 : 0;
    });
    proto_set_cb_get_login_info(handle, [](Proto *, uint32_t *hide) { *hide = 1; });
    proto_set_cb_write(handle, on_write);
    proto_set_cb_multiwrite(handle, on_multi_write);
    proto_set_cb_change(handle, [](Proto *) { return 0; });
    proto_set_cb_action(handle, on_action);
    proto_set_getchange(handle, [] { return 7U; });
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    [[maybe_unused]] static const bool ready = (proto_init(1, 0), true);
    Proto *handle = proto_new_full(data, size);
    if (proto_decode(handle) == 0) {
        require_text(proto_id(handle));
        install(handle);
        require(proto_process(handle) == 0 && proto_encode(handle) == 0);
        wire::Message request, answer;
        require(request.ParseFromArray(data, static_cast<int>(size)));
        require(answer.ParseFromArray(proto_buffer(handle), static_cast<int>(proto_buffer_size(handle))));
        require(answer.reply().sequence() == request.request().sequence());
        require(answer.reply().client_id() == request.request().client_id());
        require(answer.reply().status() != wire::STATUS_UNSPECIFIED);
    }
    proto_destroy(&handle);
    return 0;
}
