/* owned.h - how a std::unique_ptr releases what a C library made. */
#pragma once

/* For a function that takes the pointer: release(p). */
template <auto release>
struct ByPointer {
    template <typename T>
    void operator()(T *owned) const {
        release(owned);
    }
};

/* For a function that takes the address of the pointer and clears it: release(&p). */
template <auto release>
struct ByAddress {
    template <typename T>
    void operator()(T *owned) const {
        release(&owned);
    }
};
