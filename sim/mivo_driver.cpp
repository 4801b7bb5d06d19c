// SPDX-License-Identifier: MIT
#include "sim/mivo_driver.h"

#include "sim/block_driver.h"

namespace cardsim {

namespace {

constexpr unsigned kMajor = 248;

}  // namespace

std::string MivoNode(unsigned unit)
{
    return "/dev/mivosdif" + std::to_string(unit);
}

class MivoDriver : public BlockDriver {
public:
    MivoDriver(std::shared_ptr<MivoUnits> units, unsigned unit)
        : BlockDriver(nullptr, -ENXIO), units_(std::move(units)), unit_(unit)
    {
    }

    // A unit's protection is asked for with a request.
    int Open(File&) override { return 0; }

    int Ioctl(File&, uint32_t request, uintptr_t argument) override
    {
        if (units_->during_transfer && sim_mivo_is_transfer(request)) {
            units_->during_transfer(unit_);
        }
        const std::lock_guard<std::mutex> lock(units_->lock_);
        return sim_mivo_request(&units_->model_, unit_, request, &ProgramMemory(), argument);
    }

    // The end of a transfer, told once.
    short Poll(File&) override
    {
        const std::lock_guard<std::mutex> lock(units_->lock_);
        return sim_mivo_fetch_end(&units_->model_, unit_) ? POLLOUT : 0;
    }

protected:
    std::shared_ptr<Card> Inserted() override { return units_->CardIn(unit_); }

private:
    std::shared_ptr<MivoUnits> units_;
    unsigned unit_;
};

MivoUnits::MivoUnits(Kernel& kernel) : kernel_(kernel)
{
    sim_mivo_init(&model_);
}

std::shared_ptr<MivoUnits> MivoUnits::Create(Kernel& kernel)
{
    return std::shared_ptr<MivoUnits>(new MivoUnits(kernel));
}

void MivoUnits::Insert(unsigned unit, std::shared_ptr<Card> card)
{
    {
        const std::lock_guard<std::mutex> lock(lock_);
        sim_mivo_insert(&model_, unit, &card->model());
        cards_.at(unit) = std::move(card);
    }
    kernel_.AddNode(MivoNode(unit), {S_IFCHR, kMajor, unit,
                                     std::make_shared<MivoDriver>(shared_from_this(), unit)});
}

void MivoUnits::Eject(unsigned unit)
{
    const std::lock_guard<std::mutex> lock(lock_);
    sim_mivo_insert(&model_, unit, nullptr);
    cards_.at(unit) = nullptr;
}

void MivoUnits::With(const std::function<void(sim_mivo&)>& body)
{
    const std::lock_guard<std::mutex> lock(lock_);
    body(model_);
}

std::shared_ptr<Card> MivoUnits::CardIn(unsigned unit)
{
    const std::lock_guard<std::mutex> lock(lock_);
    return cards_.at(unit);
}

}  // namespace cardsim
