#include "change_ledger.h"

namespace kesto {

static constexpr int64_t settled_ms = 500;  // many times what an event takes

/* Both wrap around. */
static bool is_below(std::uint32_t number, std::uint32_t other) {
    return static_cast<std::int32_t>(number - other) < 0;
}

ChangeLedger::Finding ChangeLedger::see(std::uint32_t count, int64_t now) {
    if (last_ && is_below(count, last_->count)) return Finding::fell;
    if (!base_) base_ = count;
    if (last_ && now - last_->at < settled_ms) return Finding::fine;
    Finding finding = Finding::fine;
    if (last_) {
        const bool missing = is_below(frames_, last_->count - *base_);
        const bool quiet = count == last_->count && frames_ == last_->frames;
        if (missing) finding = Finding::lost;
        if (missing || quiet) {
            base_ = last_->count;
            frames_ -= last_->frames;
        }
    }
    last_ = Sample{count, frames_, now};
    return finding;
}

bool ChangeLedger::in_doubt() const { return last_ && base_ && is_below(frames_, last_->count - *base_); }

}  // namespace kesto
