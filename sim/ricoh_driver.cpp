// SPDX-License-Identifier: MIT
#include "sim/ricoh_driver.h"

#include "sim/block_driver.h"
#include "sim/model/ricoh_host.h"

namespace cardsim {

class RicohDriver : public BlockDriver {
public:
    explicit RicohDriver(std::shared_ptr<RicohHost> host)
        : BlockDriver(nullptr), host_(std::move(host))
    {
    }

    int Ioctl(File&, uint32_t request, uintptr_t argument) override
    {
        const std::shared_ptr<Card> card = Inserted();
        return sim_ricoh_request(card ? &card->model() : nullptr, request, &ProgramMemory(),
                                 argument);
    }

protected:
    std::shared_ptr<Card> Inserted() override { return host_->CardIn(); }

private:
    std::shared_ptr<RicohHost> host_;
};

std::shared_ptr<RicohHost> RicohHost::Create(Kernel& kernel)
{
    return std::shared_ptr<RicohHost>(new RicohHost(kernel));
}

void RicohHost::Insert(std::shared_ptr<Card> card)
{
    {
        const std::lock_guard<std::mutex> lock(lock_);
        card_ = std::move(card);
    }
    kernel_.AddNode(kRicohNode,
                    {S_IFBLK, 244, 1, std::make_shared<RicohDriver>(shared_from_this())});
}

void RicohHost::Eject()
{
    const std::lock_guard<std::mutex> lock(lock_);
    card_ = nullptr;
}

std::shared_ptr<Card> RicohHost::CardIn()
{
    const std::lock_guard<std::mutex> lock(lock_);
    return card_;
}

void AddRicohCard(Kernel& kernel, std::shared_ptr<Card> card)
{
    RicohHost::Create(kernel)->Insert(std::move(card));
}

}  // namespace cardsim
