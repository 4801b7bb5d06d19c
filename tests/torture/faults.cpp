// SPDX-License-Identifier: MIT
#include "tests/torture/faults.h"

#include <cerrno>

#include <poll.h>

namespace {

int RandomError(Random& random)
{
    static constexpr int kErrors[] = {EIO, EIO, ENODEV, ETIMEDOUT, ENOMEM, EINTR, EBUSY};
    return kErrors[random.Below(std::size(kErrors))];
}

// Of a request that moves data, or of any.
void ChooseRequest(const Unit& unit, Random& random, BenchFault* fault)
{
    if (random.OneIn(3)) {
        fault->request = unit.place.requests[random.Below(6)];
    }
}

BenchFault BusyDriver(Random& random)
{
    BenchFault fault;
    fault.error = EBUSY;
    fault.times = random.Between(1, 12);
    return fault;
}

BenchFault FailingRequest(const Unit& unit, Random& random)
{
    BenchFault fault;
    ChooseRequest(unit, random, &fault);
    fault.error = RandomError(random);
    fault.times = random.Between(1, 8);
    fault.reach = random.OneIn(2);
    return fault;
}

BenchFault UnfinishedRequest(const Unit& unit, Random& random)
{
    BenchFault fault;
    ChooseRequest(unit, random, &fault);
    fault.result = static_cast<int>(random.Between(1, 3));
    fault.times = random.Between(1, 5);
    fault.reach = random.OneIn(2);
    return fault;
}

// The data move, and nobody is told.
BenchFault SilentEnd(const Unit& unit, Random& random)
{
    BenchFault fault;
    fault.request = unit.place.requests[random.Below(6)];
    fault.never = true;
    fault.times = random.Between(1, 4);
    return fault;
}

BenchFault OddPoll(Unit& unit, Random& random)
{
    static constexpr short kEvents[] = {POLLERR, POLLHUP, POLLIN, POLLIN | POLLOUT,
                                        POLLOUT | POLLERR};
    BenchFault fault;
    fault.kind = BenchCallKind::Poll;
    fault.times = random.Between(1, 4);
    if (unit.bench.AnswersEveryCall() && random.OneIn(3)) {
        fault.error = RandomError(random);
    } else {
        fault.events = kEvents[random.Below(std::size(kEvents))];
    }
    return fault;
}

BenchFault FailingPlainTransfer(Unit& unit, Random& random)
{
    BenchFault fault;
    const bool late = unit.bench.WritesLate(unit.place.name);
    fault.kind = late || random.OneIn(2) ? BenchCallKind::Read : BenchCallKind::Write;
    fault.node = unit.place.type == DEV_TYPE_MIVO ? BenchNode::Char : BenchNode::Block;
    fault.times = random.Between(1, 2);
    if (!unit.bench.AnswersEveryCall()) {
        fault.error = EIO;
    } else if (random.OneIn(3)) {
        fault.at_most = random.Below(40) * 512 + (random.OneIn(2) ? random.Below(512) : 0);
    } else {
        fault.error = RandomError(random);
        fault.reach = random.OneIn(2);
    }
    return fault;
}

void MoveCard(Unit& unit, Random& random, const FaultScope& scope, BenchFault* fault)
{
    if (fault->never || fault->events || fault->at_most) {
        return;
    }
    if (scope.alone && random.OneIn(4)) {
        fault->protect = true;
    } else {
        fault->eject = true;
        unit.counts.ejects++;
    }
}

}  // namespace

Planned PlanFault(Unit& unit, Random& random, const FaultScope& scope)
{
    BenchFault fault;
    const uint32_t kind = unit.HasDirect() ? random.Below(10) : 9;
    switch (kind) {
        case 0:
            fault = BusyDriver(random);
            break;
        case 1:
        case 2:
            fault = FailingRequest(unit, random);
            break;
        case 3:
            fault = UnfinishedRequest(unit, random);
            break;
        case 4:
            fault = SilentEnd(unit, random);
            break;
        case 5:
        case 6:
            fault = OddPoll(unit, random);
            break;
        default:
            fault = FailingPlainTransfer(unit, random);
            break;
    }
    fault.first = scope.alone && random.OneIn(2) ? 1 : random.Between(1, scope.latest);
    if (random.OneIn(6)) {
        MoveCard(unit, random, scope, &fault);
    }
    const bool moves_card = fault.eject || fault.protect;
    if (moves_card) {
        // What the kernel has not written by then is lost, as with any card.
        unit.bench.ForgetCaches(unit.place.name);
        fault.times = 1;
    }
    unit.bench.Inject(unit.place.name, fault);
    unit.counts.faults++;
    return {true, moves_card};
}
