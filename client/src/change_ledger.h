/* change_ledger.h - whether events were lost, told from the device's change counter.
 *
 * Each change that the device counts comes as one frame, at most 33 ms after it was counted. So when the counter is
 * seen a second time, a while after the first, all that it counted at first has come. Frames that were on their way
 * when the ledger was begun make one too many, which can hide as many lost ones until the device is quiet. */
#pragma once

#include <cstdint>
#include <optional>

namespace kesto {

class ChangeLedger {
  public:
    /* Something came that the device has counted, or may have. */
    void add_frame() { ++frames_; }

    enum class Finding { fine, lost, fell };

    /* The counter of a reply. `lost`: read again; the ledger begins anew. `fell`: the device was restarted. */
    Finding see(std::uint32_t count, int64_t now);

    /* Something is missing, or came before it was counted: see the counter again soon. */
    bool in_doubt() const;

  private:
    struct Sample {
        std::uint32_t count;
        std::uint32_t frames;
        int64_t at;
    };

    std::uint32_t frames_ = 0;           // since base_
    std::optional<std::uint32_t> base_;  // the counter when frames_ began
    std::optional<Sample> last_;         // seen, and not compared yet
};

}  // namespace kesto
