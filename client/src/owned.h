/* owned.h - how a std::unique_ptr releases what a C library made: release(p). */
#pragma once

namespace kesto {

template <auto release>
struct ByPointer {
    template <typename T>
    void operator()(T *owned) const {
        release(owned);
    }
};

}  // namespace kesto
