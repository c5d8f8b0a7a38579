#include "faults.h"

#include <algorithm>
#include <optional>

const char *const fault_syntax =
    "Faults, METHOD[:KEY]=KIND: METHOD is read, write or multi-write; with KEY only calls that name this key.\n"
    "  late:MS  carried out at once, answered after MS milliseconds (at most 600000); others are served meanwhile\n"
    "  never    not carried out, never answered\n"
    "  error    not carried out, D-Bus error com.quillmont.kesto.Data.Error.Failed \"simulated fault\"\n"
    "  type     carried out, answered with another type: read (v) of an int32, write (u), multi-write (s)\n"
    "  empty    carried out, answered with ()\n"
    "  refuse   write only: not carried out, answered with -5\n"
    "  die      the process ends at once with status 70, the call unanswered\n"
    "  none     takes the fault away; without KEY all of that METHOD\n"
    "A fault for a key goes before one for all keys; the last one set for the same METHOD and KEY counts.";

static constexpr guint64 late_max_ms = 600000;
static constexpr const char *late_prefix = "late:";
static constexpr const char *none = "none";

struct MethodName {
    const char *text;
    DataMethod method;
};
static constexpr MethodName method_names[] = {
    {"read",        DataMethod::read       },
    {"write",       DataMethod::write      },
    {"multi-write", DataMethod::multi_write},
};

struct KindName {
    const char *text;
    FaultKind kind;
};
static constexpr KindName kind_names[] = {
    {"never",  FaultKind::never },
    {"error",  FaultKind::error },
    {"type",   FaultKind::type  },
    {"empty",  FaultKind::empty },
    {"refuse", FaultKind::refuse},
    {"die",    FaultKind::die   },
};

static std::optional<DataMethod> parse_method(const std::string &text) {
    for (const MethodName &row : method_names)
        if (text == row.text) return row.method;
    return std::nullopt;
}

static bool parse_kind(const std::string &text, Fault &fault) {
    if (text.starts_with(late_prefix)) {
        guint64 late_ms = 0;
        const std::string number = text.substr(std::string(late_prefix).size());
        if (!g_ascii_string_to_unsigned(number.c_str(), 10, 0, late_max_ms, &late_ms, nullptr)) return false;
        fault.kind = FaultKind::late;
        fault.late_ms = static_cast<guint>(late_ms);
        return true;
    }
    for (const KindName &row : kind_names) {
        if (text != row.text) continue;
        fault.kind = row.kind;
        return fault.kind != FaultKind::refuse || fault.method == DataMethod::write;
    }
    return false;
}

static void forget(Faults &faults, DataMethod method, const std::string &key, bool all_keys) {
    std::erase_if(faults, [&](const Fault &fault) { return fault.method == method && (all_keys || fault.key == key); });
}

std::string faults_apply(Faults &faults, const std::string &text) {
    const std::string wrong = "fault \"" + text + "\": ";
    const size_t equals = text.rfind('=');
    if (equals == std::string::npos) return wrong + "METHOD[:KEY]=KIND expected";
    const std::string target = text.substr(0, equals), kind = text.substr(equals + 1);
    const size_t colon = target.find(':');

    const auto method = parse_method(target.substr(0, colon));
    if (!method) return wrong + "METHOD is read, write or multi-write";
    const std::string key = colon == std::string::npos ? "" : target.substr(colon + 1);
    if (colon != std::string::npos && !key.starts_with('/')) return wrong + "KEY begins with \"/\"";

    Fault fault{*method, key, {}, 0};
    const bool clear = kind == none;
    if (!clear && !parse_kind(kind, fault)) return wrong + "no such KIND for this METHOD";
    forget(faults, *method, key, clear && key.empty());
    if (!clear) faults.push_back(fault);
    return "";
}

const Fault *faults_find(const Faults &faults, DataMethod method, const std::vector<std::string> &keys) {
    const Fault *for_all = nullptr;
    for (const Fault &fault : faults) {
        if (fault.method != method) continue;
        if (std::find(keys.begin(), keys.end(), fault.key) != keys.end() && !fault.key.empty()) return &fault;
        if (fault.key.empty()) for_all = &fault;
    }
    return for_all;
}
