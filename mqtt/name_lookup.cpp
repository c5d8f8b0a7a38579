#include "name_lookup.h"

#include <netdb.h>
#include <utility>

#include "clock.h"
#include "log.h"

static constexpr int answer_holds_ms = 5000;
static constexpr int failed_pause_ms = 5000;

struct NameLookup::Request {
    std::string name;
    gaicb block = {};
};

static bool is_address(const std::string &name) {
    addrinfo hints = {}, *found = nullptr;
    hints.ai_flags = AI_NUMERICHOST;
    if (getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0) return false;
    freeaddrinfo(found);
    return true;
}

NameLookup::NameLookup(std::string name) : name_(std::move(name)), is_address_(is_address(name_)) {}

/* What cannot be cancelled belongs to the C library until the end of the program. */
NameLookup::~NameLookup() {
    if (request_ && gai_cancel(&request_->block) == EAI_NOTCANCELED) static_cast<void>(request_.release());
}

bool NameLookup::is_quick() {
    if (is_address_) return true;
    const std::int64_t now_ms = clock_ms();
    if (request_) take_answer(now_ms);
    if (now_ms < quick_until_ms_) return true;
    if (!request_ && now_ms >= begin_at_ms_) begin(now_ms);
    return false;
}

void NameLookup::begin(std::int64_t now_ms) {
    begin_at_ms_ = now_ms + failed_pause_ms;
    request_ = std::make_unique<Request>();
    request_->name = name_;
    request_->block.ar_name = request_->name.c_str();
    gaicb *list[] = {&request_->block};
    if (getaddrinfo_a(GAI_NOWAIT, list, 1, nullptr) != 0) request_.reset();
}

/* That there is no such name is an answer, too, and the MQTT library's to say. */
void NameLookup::take_answer(std::int64_t now_ms) {
    const int result = gai_error(&request_->block);
    if (result == EAI_INPROGRESS) return;
    if (result == 0) freeaddrinfo(request_->block.ar_result);
    request_.reset();
    const bool has_failed = result == EAI_AGAIN || result == EAI_SYSTEM || result == EAI_MEMORY;
    if (!has_failed) quick_until_ms_ = now_ms + answer_holds_ms;
    if (has_failed && !is_failure_said_) say("broker: " + name_ + " cannot be looked up: " + gai_strerror(result));
    is_failure_said_ = has_failed;
}
