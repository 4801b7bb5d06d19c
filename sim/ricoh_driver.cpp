// SPDX-License-Identifier: MIT
#include "sim/ricoh_driver.h"

#include "sim/model/ricoh_host.h"

namespace cardsim {

namespace {

class RicohDriver : public BlockDriver {
public:
    using BlockDriver::BlockDriver;

    int Ioctl(File&, uint32_t request, uintptr_t argument) override
    {
        return sim_ricoh_request(&Inserted()->model(), request, &ProgramMemory(), argument);
    }
};

}  // namespace

void AddRicohCard(Kernel& kernel, std::shared_ptr<Card> card)
{
    kernel.AddNode(kRicohNode, {S_IFBLK, 244, 1, std::make_shared<RicohDriver>(std::move(card))});
}

}  // namespace cardsim
