// SPDX-License-Identifier: MIT
#include "sim/zel_driver.h"

#include "sim/block_driver.h"

namespace cardsim {

namespace {

constexpr unsigned kBlockMajor = 240;
constexpr unsigned kMinorsOfUnit = 16;  // counted from minor 1
constexpr unsigned kCharMajor = 241;
constexpr unsigned kRtMajor = 242;

}  // namespace

std::string ZelBlockNode(unsigned unit)
{
    return std::string("/dev/spd") + static_cast<char>('a' + unit);
}

std::string ZelCharNode(unsigned unit)
{
    return std::string("/dev/spdr") + static_cast<char>('a' + unit);
}

class ZelBlockDriver : public BlockDriver {
public:
    ZelBlockDriver(std::shared_ptr<ZelSlots> slots, unsigned unit)
        : BlockDriver(nullptr), slots_(std::move(slots)), unit_(unit)
    {
    }

    // The slot's protection is asked for with a request.
    int Open(File&) override { return Inserted() ? 0 : -ENOMEDIUM; }

    int Ioctl(File&, uint32_t request, uintptr_t argument) override
    {
        const std::lock_guard<std::mutex> lock(slots_->lock_);
        return sim_zel_block_request(&slots_->model_, unit_, request, &ProgramMemory(), argument);
    }

protected:
    std::shared_ptr<Card> Inserted() override { return slots_->CardIn(unit_); }

private:
    std::shared_ptr<ZelSlots> slots_;
    unsigned unit_;
};

class ZelCharDriver : public Driver {
public:
    ZelCharDriver(std::shared_ptr<ZelSlots> slots, unsigned unit)
        : slots_(std::move(slots)), unit_(unit)
    {
    }

    int Ioctl(File&, uint32_t request, uintptr_t argument) override
    {
        if (slots_->during_transfer && sim_zel_is_transfer(request)) {
            slots_->during_transfer(unit_);
        }
        const std::lock_guard<std::mutex> lock(slots_->lock_);
        return sim_zel_char_request(&slots_->model_, unit_, request, &ProgramMemory(), argument);
    }

    // The end of a transfer, told once.
    short Poll(File&) override
    {
        const std::lock_guard<std::mutex> lock(slots_->lock_);
        return sim_zel_fetch_end(&slots_->model_, unit_) ? POLLOUT : 0;
    }

private:
    std::shared_ptr<ZelSlots> slots_;
    unsigned unit_;
};

class ZelRtDriver : public Driver {
public:
    explicit ZelRtDriver(std::shared_ptr<ZelSlots> slots) : slots_(std::move(slots)) {}

    int Ioctl(File&, uint32_t request, uintptr_t argument) override
    {
        const std::lock_guard<std::mutex> lock(slots_->lock_);
        return sim_rtctrl_request(&slots_->model_, request, &ProgramMemory(), argument);
    }

private:
    std::shared_ptr<ZelSlots> slots_;
};

ZelSlots::ZelSlots(Kernel& kernel) : kernel_(kernel)
{
    sim_zel_init(&model_);
}

std::shared_ptr<ZelSlots> ZelSlots::Create(Kernel& kernel)
{
    std::shared_ptr<ZelSlots> slots(new ZelSlots(kernel));
    kernel.AddNode(kRtNode, {S_IFCHR, kRtMajor, 0, std::make_shared<ZelRtDriver>(slots)});
    return slots;
}

void ZelSlots::Insert(unsigned unit, std::shared_ptr<Card> card)
{
    {
        const std::lock_guard<std::mutex> lock(lock_);
        sim_zel_insert(&model_, unit, &card->model());
        cards_.at(unit) = std::move(card);
    }
    kernel_.AddNode(ZelBlockNode(unit),
                    {S_IFBLK, kBlockMajor, kMinorsOfUnit * unit + 1,
                     std::make_shared<ZelBlockDriver>(shared_from_this(), unit)});
    kernel_.AddNode(ZelCharNode(unit), {S_IFCHR, kCharMajor, unit,
                                        std::make_shared<ZelCharDriver>(shared_from_this(), unit)});
}

void ZelSlots::Eject(unsigned unit)
{
    const std::lock_guard<std::mutex> lock(lock_);
    sim_zel_insert(&model_, unit, nullptr);
    cards_.at(unit) = nullptr;
}

void ZelSlots::With(const std::function<void(sim_zel&)>& body)
{
    const std::lock_guard<std::mutex> lock(lock_);
    body(model_);
}

std::shared_ptr<Card> ZelSlots::CardIn(unsigned unit)
{
    const std::lock_guard<std::mutex> lock(lock_);
    return cards_.at(unit);
}

}  // namespace cardsim
