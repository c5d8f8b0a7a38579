/* wire.h - the frames of the contract. */
#pragma once

#include <kesto-client/exchange.h>

namespace kesto {

struct Encoded {
    std::string frame;
    std::string problem;  // why there is no frame
};
Encoded encode_request(const Request &request);

}  // namespace kesto
