// SPDX-License-Identifier: MIT
//
// The bench in the stand-in for the kernel.
#include <cerrno>
#include <cstring>
#include <mutex>
#include <stdexcept>

#include <sched.h>

#include "sim/mivo_driver.h"
#include "sim/ricoh_driver.h"
#include "sim/zel_driver.h"
#include "tests/support/bench.h"

namespace {

using cardsim::CallKind;

struct Kinds {
    BenchCallKind bench;
    CallKind sim;
};

constexpr Kinds kKinds[] = {
    {BenchCallKind::Open, CallKind::Open},   {BenchCallKind::Close, CallKind::Close},
    {BenchCallKind::Read, CallKind::Read},   {BenchCallKind::Write, CallKind::Write},
    {BenchCallKind::Ioctl, CallKind::Ioctl}, {BenchCallKind::Poll, CallKind::Poll},
};

std::optional<BenchCallKind> KindOf(CallKind kind)
{
    for (const Kinds& kinds : kKinds) {
        if (kinds.sim == kind) {
            return kinds.bench;
        }
    }
    return {};
}

CallKind KindOf(BenchCallKind kind)
{
    for (const Kinds& kinds : kKinds) {
        if (kinds.bench == kind) {
            return kinds.sim;
        }
    }
    throw std::logic_error("no such call");
}

std::shared_ptr<cardsim::Card> CardWith(const Bytes& sectors)
{
    std::shared_ptr<cardsim::Card> card =
        cardsim::Card::InMemory(static_cast<uint32_t>(sectors.size() / 512));
    sim_card_write(&card->model(), 0, sectors.data(), static_cast<uint32_t>(sectors.size()));
    return card;
}

class SimBench : public Bench {
public:
    SimBench()
    {
        kernel_.FillBlocksWith(0xA5);
        // Other threads get their chance to do harm before a driver looks at what it was given.
        slots_->during_transfer = [](unsigned) { sched_yield(); };
        units_->during_transfer = [](unsigned) { sched_yield(); };
    }

    void Insert(const std::string& place, const Bytes& sectors) override
    {
        const std::shared_ptr<cardsim::Card> card = CardWith(sectors);
        if (IsZel(place)) {
            slots_->Insert(UnitOf(place), card);
        } else if (IsMivo(place)) {
            units_->Insert(UnitOf(place), card);
        } else {
            host_->Insert(card);
        }
        const std::lock_guard<std::mutex> lock(cards_lock_);
        cards_[place] = card;
    }

    void Eject(const std::string& place) override
    {
        if (IsZel(place)) {
            slots_->Eject(UnitOf(place));
        } else if (IsMivo(place)) {
            units_->Eject(UnitOf(place));
        } else {
            host_->Eject();
        }
        const std::lock_guard<std::mutex> lock(cards_lock_);
        const auto found = cards_.find(place);
        if (found != cards_.end()) {
            pulled_[place] = std::move(found->second);
            cards_.erase(found);
        }
    }

    void Protect(const std::string& place, bool is_protected) override
    {
        Model(place).write_protected = is_protected;
    }

    Bytes OnCard(const std::string& place, uint32_t first, uint32_t sectors) override
    {
        return Sectors(Model(place), first, sectors);
    }

    Bytes OnPulledCard(const std::string& place, uint32_t first, uint32_t sectors) override
    {
        return Sectors(CardOf(pulled_, place)->model(), first, sectors);
    }

    bool CachesPlain(const std::string&) override { return false; }
    bool WritesLate(const std::string&) override { return false; }
    void ForgetCaches(const std::string&) override {}

    bool HasCard(const std::string& place) override
    {
        const std::lock_guard<std::mutex> lock(cards_lock_);
        return cards_.count(place) != 0;
    }

    Bytes Register(const std::string& place, const std::string& name) override
    {
        const Field field = FieldOf(place, name);
        return Bytes(field.at, field.at + field.length);
    }

    void SetRegister(const std::string& place, const std::string& name, const Bytes& bytes) override
    {
        const Field field = FieldOf(place, name);
        if (bytes.size() != field.length) {
            throw std::logic_error(name + " is of another length");
        }
        memcpy(field.at, bytes.data(), bytes.size());
    }

    bool AnswersEveryCall() override { return true; }
    void Latency(const std::string&, std::chrono::microseconds) override {}

    void Inject(const std::string& place, const BenchFault& fault) override
    {
        cardsim::Fault sim;
        sim.kind = KindOf(fault.kind);
        sim.node = NodeOf(place, fault.node);
        if (fault.request != 0) {
            sim.request = fault.request;
        }
        sim.first = fault.first;
        sim.times = fault.times;
        sim.error = fault.error;
        if (fault.result) {
            sim.result = *fault.result;
        }
        sim.reach_driver = fault.reach;
        sim.revents = fault.events;
        sim.at_most = fault.at_most;
        sim.then = [this, place, fault] { Follow(place, fault); };
        kernel_.Inject(sim);
    }

    void ClearFaults(const std::string& place) override
    {
        for (const BenchNode node : {BenchNode::Block, BenchNode::Char}) {
            const std::string path = NodeOf(place, node);
            if (!path.empty()) {
                kernel_.ClearFaults(path);
            }
        }
    }

    std::vector<BenchCall> Calls(const std::string& place) override
    {
        std::vector<BenchCall> calls;
        std::chrono::nanoseconds now = cleared_at_;
        for (const cardsim::Call& call : kernel_.Calls()) {
            now += TimeOf(call);
            const std::optional<BenchCallKind> kind = KindOf(call.kind);
            const bool block = call.node == NodeOf(place, BenchNode::Block);
            if (kind && (block || call.node == NodeOf(place, BenchNode::Char))) {
                calls.push_back({*kind, block ? BenchNode::Block : BenchNode::Char, call.request,
                                 call.error != 0 ? -call.error : static_cast<int>(call.result),
                                 now});
            }
        }
        return calls;
    }

    void ClearCalls(const std::string&) override
    {
        kernel_.ClearCalls();
        cleared_at_ = kernel_.Now();
    }

    void KeepNoCalls() override { kernel_.KeepCalls(false); }

    uint32_t State(const std::string& place, const std::string& key) override
    {
        uint32_t value = 0;
        WithState(place, key, [&](auto& state) { value = static_cast<uint32_t>(state); });
        return value;
    }

    void SetState(const std::string& place, const std::string& key, uint32_t value) override
    {
        WithState(place, key, [&](auto& state) {
            state = static_cast<std::remove_reference_t<decltype(state)>>(value);
        });
    }

    void MakeNode(const std::string& path, mode_t type, unsigned major, unsigned minor) override
    {
        kernel_.AddNode(path, {type, major, minor, nullptr});
    }

    void ZeroFreshBlocks(size_t) override { kernel_.FillBlocksWith(0); }

    std::chrono::nanoseconds Now() override { return kernel_.Now(); }
    std::chrono::nanoseconds Slack() override { return std::chrono::nanoseconds(0); }

    std::string LeftBehind() override
    {
        const size_t files = kernel_.OpenFiles();
        return files == 0 ? "" : std::to_string(files) + " open files";
    }

    size_t LiveBlocks() override { return kernel_.LiveBlocks(); }

private:
    struct Field {
        uint8_t* at;
        size_t length;
    };

    static bool IsZel(const std::string& place) { return place.starts_with("zel"); }
    static bool IsMivo(const std::string& place) { return place.starts_with("mivo"); }
    static unsigned UnitOf(const std::string& place)
    {
        return static_cast<unsigned>(place.back() - '0');
    }

    // "" where there is none.
    static std::string NodeOf(const std::string& place, BenchNode node)
    {
        const bool block = node == BenchNode::Block;
        if (IsZel(place)) {
            return block ? cardsim::ZelBlockNode(UnitOf(place))
                         : cardsim::ZelCharNode(UnitOf(place));
        }
        if (place == "ricoh") {
            return block ? cardsim::kRicohNode : "";
        }
        if (block) {
            return "";
        }
        return IsMivo(place) ? cardsim::MivoNode(UnitOf(place)) : cardsim::kRtNode;
    }

    using Cards = std::map<std::string, std::shared_ptr<cardsim::Card>>;

    std::shared_ptr<cardsim::Card> CardOf(const Cards& cards, const std::string& place)
    {
        const std::lock_guard<std::mutex> lock(cards_lock_);
        return cards.at(place);
    }

    sim_card& Model(const std::string& place) { return CardOf(cards_, place)->model(); }

    static Bytes Sectors(sim_card& card, uint32_t first, uint32_t sectors)
    {
        Bytes bytes(size_t{sectors} * 512);
        sim_card_read(&card, uint64_t{first} * 512, bytes.data(),
                      static_cast<uint32_t>(bytes.size()));
        return bytes;
    }

    Field FieldOf(const std::string& place, const std::string& name)
    {
        sim_card& model = Model(place);
        if (name == "cid") {
            return {model.cid, sizeof model.cid};
        }
        if (name == "csd") {
            return {model.csd, sizeof model.csd};
        }
        if (name == "scr") {
            return {model.scr, sizeof model.scr};
        }
        return {model.sd_status, sizeof model.sd_status};
    }

    template <typename Body>
    void WithState(const std::string& place, const std::string& key, const Body& body)
    {
        if (IsMivo(place)) {
            units_->With([&](sim_mivo& mivo) { OfUnit(mivo.unit[UnitOf(place)], key, body); });
        } else if (IsZel(place)) {
            slots_->With([&](sim_zel& zel) { OfSlot(zel.slot[UnitOf(place)], key, body); });
        } else {
            slots_->With([&](sim_zel& zel) { OfControl(zel.rt, key, body); });
        }
    }

    template <typename Unit, typename Body>
    static bool OfBoth(Unit& unit, const std::string& key, const Body& body)
    {
        if (key == "resets") {
            body(unit.resets);
        } else if (key == "last_command") {
            body(unit.last_command);
        } else if (key == "command_word") {
            body(unit.command_word);
        } else {
            return false;
        }
        return true;
    }

    template <typename Body>
    static void OfUnit(sim_mivo_unit& unit, const std::string& key, const Body& body)
    {
        if (!OfBoth(unit, key, body)) {
            body(unit.mounted);
        }
    }

    template <typename Body>
    static void OfSlot(sim_zel_slot& slot, const std::string& key, const Body& body)
    {
        if (key == "version") {
            body(slot.version);
        } else if (!OfBoth(slot, key, body)) {
            body(slot.data_start);
        }
    }

    template <typename Body>
    static void OfControl(sim_rtctrl& control, const std::string& key, const Body& body)
    {
        if (key == "rt_status") {
            body(control.rt_status);
        } else if (key == "delay_status") {
            body(control.delay_status);
        } else if (key == "on_for_wait") {
            body(control.on_for_wait);
        } else if (key == "locks") {
            body(control.locks);
        } else {
            body(control.channel);
        }
    }

    // What comes with a fault, beside the call's answer.
    void Follow(const std::string& place, const BenchFault& fault)
    {
        if (fault.never && IsZel(place)) {
            slots_->With([&](sim_zel& zel) { sim_zel_fetch_end(&zel, UnitOf(place)); });
        } else if (fault.never) {
            units_->With([&](sim_mivo& mivo) { sim_mivo_fetch_end(&mivo, UnitOf(place)); });
        }
        if (fault.eject) {
            Eject(place);
        } else if (fault.protect && HasCard(place)) {
            Protect(place, true);
        } else if (fault.exchange) {
            Insert(place, *fault.exchange);
        }
    }

    // What a call adds to the stand-in's clock.
    static std::chrono::nanoseconds TimeOf(const cardsim::Call& call)
    {
        if (call.kind == CallKind::Sleep) {
            return std::chrono::nanoseconds(call.amount);
        }
        if (call.kind == CallKind::Poll && call.result == 0) {
            return std::chrono::milliseconds(call.amount);
        }
        return std::chrono::nanoseconds(0);
    }

    cardsim::Kernel kernel_;
    std::shared_ptr<cardsim::ZelSlots> slots_ = cardsim::ZelSlots::Create(kernel_);
    std::shared_ptr<cardsim::MivoUnits> units_ = cardsim::MivoUnits::Create(kernel_);
    std::shared_ptr<cardsim::RicohHost> host_ = cardsim::RicohHost::Create(kernel_);
    std::mutex cards_lock_;
    Cards cards_;
    Cards pulled_;  // the one that left last
    std::chrono::nanoseconds cleared_at_{0};
};

}  // namespace

std::unique_ptr<Bench> Bench::Create()
{
    return std::make_unique<SimBench>();
}
