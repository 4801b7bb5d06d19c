// SPDX-License-Identifier: MIT
#ifndef CARDDEV_FUZZ_INPUT_H
#define CARDDEV_FUZZ_INPUT_H

#include <stddef.h>
#include <stdint.h>

namespace fuzz {

// The bytes of one execution, or some of them. What has been used up gives zeros. Wider
// numbers come most significant byte first, so that an input means the same on every
// processor: a corpus serves all builds.
class Input {
public:
    Input(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}

    size_t Left() const { return static_cast<size_t>(end_ - at_); }
    const uint8_t* Rest() const { return at_; }

    uint8_t Byte() { return Left() == 0 ? uint8_t{0} : *at_++; }
    uint32_t Number(int bytes)
    {
        uint32_t number = 0;
        for (int i = 0; i < bytes; i++) {
            number = number << 8 | Byte();
        }
        return number;
    }
    bool Flag() { return (Byte() & 1) != 0; }

    // The next `length` bytes, or what there is of them, as an input of their own.
    Input Part(size_t length)
    {
        const size_t size = length < Left() ? length : Left();
        const Input part(at_, size);
        at_ += size;
        return part;
    }

private:
    const uint8_t* at_;
    const uint8_t* end_;
};

}  // namespace fuzz

#endif
