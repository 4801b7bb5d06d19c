// SPDX-License-Identifier: MIT
//
// Runs an operation under a plan of faults and compares what happened with what its tables
// say.
#ifndef CARDDEV_TESTS_FAULTS_STAND_H
#define CARDDEV_TESTS_FAULTS_STAND_H

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "carddev_state.h"
#include "ricohsd/ricohsd.h"
#include "sim/mivo_driver.h"
#include "sim/ricoh_driver.h"
#include "sim/zel_driver.h"
#include "tests/faults/rules.h"
#include "tests/faults/tables.h"

namespace faults {

using Bytes = std::vector<uint8_t>;

// The records of all units, copied byte for byte.
struct Records {
    ZelDevice zel[ZEL_UNITS] = {};
    MivoDevice mivo[MIVO_UNITS] = {};
    RicohSdDev ricoh[1] = {};
};

class Stand {
public:
    // One of `others`, in turn, is what each run does last.
    Stand(const Operation& operation, const std::vector<Operation>& others);
    ~Stand();
    Stand(const Stand&) = delete;
    Stand& operator=(const Stand&) = delete;

    // What the tables expect of the plan. `complaint` says what was otherwise; "" where
    // nothing was.
    Expected Try(const Plan& plan, int error_before, std::string* complaint);

private:
    struct Happened {
        int64_t result = 0;
        int error = 0;
        std::string printed = {};
        std::vector<cardsim::Call> calls = {};
        std::vector<bool> locked = {};  // without frees
    };

    void Prepare();
    Happened Run(const Operation& operation, const Plan& plan, int error_before);
    void Inject(const Plan& plan);
    void Look(const cardsim::Call& call);
    Variables StateBefore() const;
    void Compare(const Expected& expected, const Happened& happened);
    void CompareState(const Variables& state);
    void CompareData(const Operation& operation, const Expected& expected, const Variables& state);
    void CompareMemory(const Operation& operation);
    void CompareWrites(const Operation& operation);
    static int ReadCard(void* self, uint64_t position, void* to, uint32_t length);
    static int WriteCard(void* self, uint64_t position, const void* from, uint32_t length);
    void DoubtData(const Expected& expected, const Variables& state);
    void CompareRecord();
    void CompareOtherRecords();
    void FillOtherRecords(uint8_t byte);
    int64_t Continue(const Operation& operation, const Rules& rules, const char* how,
                     Variables* state, int error_before);
    void UseUnopened();
    void CloseByHand();
    void Leave(int64_t result, Variables state, int error_before);
    void Move(CardMove move);
    void Complain(const std::string& what);
    void Expect(bool holds, const char* what);
    std::string Captured(const std::function<void()>& body);
    pthread_mutex_t* OwnLock() const;
    bool IsLockFree();

    struct Other {
        const Operation* operation;
        Rules rules;
    };

    const Operation& op_;
    Rules rules_;
    std::vector<Other> others_;
    std::vector<const Operation*> unopened_;
    size_t turn_ = 0;
    std::shared_ptr<cardsim::Card> card_;
    sim_media sectors_ = {};  // the card's own
    bool wrote_ = false;      // to the card
    bool wrote_elsewhere_ = false;
    std::unique_ptr<cardsim::Kernel> kernel_ = std::make_unique<cardsim::Kernel>();
    std::shared_ptr<cardsim::ZelSlots> slots_;
    std::shared_ptr<cardsim::MivoUnits> units_;
    std::shared_ptr<cardsim::RicohHost> host_;
    std::unique_ptr<Subject> subject_ = std::make_unique<Subject>();
    std::vector<bool> locked_;
    Bytes sent_;  // with the first transfer's request of a call
    bool sent_otherwise_ = false;
    bool card_moved_ = false;
    Records before_;  // the last call
    Bytes memory_before_;
    size_t lost_blocks_ = 0;  // by openings that failed
    std::string complaint_;
    int input_ = -1;
    FILE* console_ = nullptr;
    char* text_ = nullptr;
    size_t length_ = 0;
};

// "call 3 ioctl(...) for ever: EIO"
std::string NameOf(const Plan& plan);

}  // namespace faults

#endif
