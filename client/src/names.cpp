#include <kesto-client/client.h>

namespace kesto {

std::string outcome_name(Outcome outcome) {
    switch (outcome) {
        case Outcome::done: return "done";
        case Outcome::partly: return "partly";
        case Outcome::not_allowed: return "not_allowed";
        case Outcome::refused: return "refused";
        case Outcome::unsupported: return "unsupported";
        case Outcome::invalid: return "invalid";
        case Outcome::not_sent: return "not_sent";
        case Outcome::unknown: return "unknown";
        case Outcome::nonsense: return "nonsense";
        case Outcome::interrupted: return "interrupted";
    }
    return std::to_string(static_cast<int>(outcome));
}

std::string notice_name(Notice notice) {
    switch (notice) {
        case Notice::connected: return "connected";
        case Notice::lost: return "lost";
        case Notice::recovered: return "recovered";
        case Notice::read_again: return "read_again";
        case Notice::not_reachable: return "not_reachable";
        case Notice::refused: return "refused";
        case Notice::invalid: return "invalid";
    }
    return std::to_string(static_cast<int>(notice));
}

static const char *phrase_of(Notice notice) {
    switch (notice) {
        case Notice::connected: return "connected";
        case Notice::lost: return "connection lost";
        case Notice::recovered: return "connected again";
        case Notice::read_again: return "values may have changed";
        case Notice::not_reachable: return "not reachable";
        case Notice::refused: return "login refused";
        case Notice::invalid: return "no login possible";
    }
    return "";
}

std::string notice_text(Notice notice, const std::string &sentence) {
    return sentence.empty() ? phrase_of(notice) : phrase_of(notice) + (": " + sentence);
}

}  // namespace kesto
