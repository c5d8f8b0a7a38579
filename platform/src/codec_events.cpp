// The events that the service publishes.
#include "codec.h"

int proto_encode_alarm_event(Proto *handle, const ProtoAlarm *alarm) {
    wire::Message message;
    wire::Alarm *event = message.mutable_event()->mutable_alarm();
    event->set_code(alarm->code);
    event->set_active(alarm->active);
    event->set_channel(alarm->channel);
    event->set_value(alarm->value);
    return codec_store(handle, message);
}

int proto_encode_kv(Proto *handle, const char *key, const char *value, const char *type) {
    handle->buffer.clear();
    if (key == nullptr || value == nullptr) return -1;
    wire::Message message;
    wire::Change *event = message.mutable_event()->mutable_change();
    if (!codec_set_text(event->mutable_key(), key) || !codec_set_text(event->mutable_value(), value)) return -1;
    if (type != nullptr && !codec_set_text(event->mutable_type(), type)) return -1;
    return codec_store(handle, message);
}

int proto_encode_RestoreSnapshot(Proto *handle, uint32_t slot) {
    wire::Message message;
    message.mutable_event()->mutable_snapshot_loaded()->set_slot(slot);
    return codec_store(handle, message);
}

int proto_encode_SpeakerPresetLoaded(Proto *handle) {
    wire::Message message;
    message.mutable_event()->mutable_speaker_preset_loaded();
    return codec_store(handle, message);
}
