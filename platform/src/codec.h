/* codec.h - what the codec's sources share: the record behind a handle. */
#pragma once

#include <string>

#include <kesto/proto.h>

#include "access.pb.h"

namespace wire = kesto::access::v1;

struct ProtoCallbacks {
    ProtoReadCallback read;
    ProtoAuthCallback auth;
    ProtoLoginInfoCallback get_login_info;
    ProtoWriteCallback write;
    ProtoMultiWriteCallback multi_write;
    ProtoChangeCallback change;
    ProtoActionCallback action;
    ProtoGetChangeCallback get_change;
};

/* What belongs to one use of a handle. */
struct ProtoUse {
    bool decoded = false, answered = false; /* whether `request` and `answer` below are this use's */
    const char *discovery = nullptr;        /* the static discovery text, borrowed */
    void *private_data = nullptr;
    ProtoCallbacks callbacks = {};
};

struct Proto {
    ProtoUse use;
    std::string received;
    wire::Message request, answer;
    bool has_unknown = false; /* `request` has fields that the contract does not have */
    std::string buffer;       /* never empty once encoded: a message always has a body */
};

/* Serializes the message into the handle's buffer. 0, or -1 with an empty buffer. */
int codec_store(Proto *handle, const wire::Message &message);

/* Copies a text from the service. False, and nothing is copied, when it is not UTF-8: protobuf would send it, and no
 * client could parse the message. */
bool codec_set_text(std::string *field, const char *text);
