#include "counts.h"

#include <nlohmann/json.hpp>

struct NamedCount {
    const char *name, *words;
    std::uint64_t Counts::*count;
};
static constexpr NamedCount named_counts[] = {
    {"values_overtaken", "values overtaken by later ones",  &Counts::values_overtaken},
    {"alarms_dropped",   "alarms dropped",                  &Counts::alarms_dropped  },
    {"answers_dropped",  "answers dropped",                 &Counts::answers_dropped },
    {"not_publishable",  "values that cannot be published", &Counts::not_publishable },
    {"sets_not_done",    "sets that were not carried out",  &Counts::sets_not_done   },
};

std::uint64_t drops(const Counts &counts) {
    return counts.alarms_dropped + counts.answers_dropped + counts.not_publishable;
}

std::string counts_json(const Counts &counts) {
    nlohmann::ordered_json object;
    for (const NamedCount &named : named_counts) object[named.name] = counts.*named.count;
    return object.dump();
}

std::string counts_sentence(const Counts &counts) {
    std::string sentence;
    for (const NamedCount &named : named_counts)
        sentence += (sentence.empty() ? "" : ", ") + std::to_string(counts.*named.count) + " " + named.words;
    return sentence;
}
