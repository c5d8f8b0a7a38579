/* activity.h - what the device does of its own accord: it tells the access service, and never waits for an answer,
 * since the access service may be waiting for one of ours. */
#pragma once

#include "device.h"

struct AccessCall {
    const char *method;  // of com.quillmont.kesto.Access.Service
    const char *label;   // on our standard output
};
constexpr AccessCall alarm_raised = {"Dispatch", "alarm"};                                              // "(idi)"
constexpr AccessCall value_changed = {"GeneralDispatch", "change"};                                     // "(sss)"
constexpr AccessCall snapshot_loaded = {"SnapshotLoadedDispatch", "snapshot loaded"};                   // "(u)"
constexpr AccessCall speaker_preset_loaded = {"SpeakerPresetLoadedDispatch", "speaker preset loaded"};  // "()"

/* Calls the access service and prints the label with the arguments. A floating `arguments` is taken over. Nothing is
 * started for the call: without an access service it is lost, as the event would be. */
void activity_tell(Device &device, const AccessCall &call, GVariant *arguments);

constexpr double period_min_s = 0.001, period_max_s = 86400;

/* From now on an alarm, and a change of a measured value, every so many seconds; 0: never. */
void activity_start(Device &device, double alarm_every_s, double change_every_s);
