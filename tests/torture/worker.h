// SPDX-License-Identifier: MIT
//
// What one thread does to its sectors of a unit, and what it makes of the answers.
#ifndef CARDDEV_TESTS_TORTURE_WORKER_H
#define CARDDEV_TESTS_TORTURE_WORKER_H

#include "sim/low_memory.h"
#include "tests/torture/faults.h"
#include "tests/torture/unit.h"

class Worker {
public:
    struct Share {
        uint32_t thread;
        uint32_t first;  // sectors that no other thread touches
        uint32_t sectors;
        bool alone;  // on the unit
        bool plain;  // plain transfers, too, which take no lock
    };

    Worker(Unit& unit, const Share& share);

    // Alone, it plans faults of its own and stops when it is time to open the unit anew.
    // Otherwise `planned` waits for all threads of the unit. How many operations were done.
    uint64_t Run(uint64_t operations, const Planned& planned);

private:
    // Sectors that are next to each other on the card and in data_.
    struct Piece {
        uint32_t first;
        uint32_t sectors;
        uint32_t offset;  // in data_
    };
    using Pieces = std::vector<Piece>;
    // Of a caller's memory, with gaps between the chunks.
    using Chunks = std::vector<MemoryChunk>;

    // What a call has said. Refused: it did not ask the driver to move anything.
    enum class Answer { Done, Failed, Refused };
    // What it has to say. Never: and it must not move anything.
    enum class Expect { Done, Never, Either };

    void Step();
    void Write();
    void WriteBadly();
    void Read();
    void ReadBack(const Pieces& pieces, Route written_by);
    void ReadPiece(const Piece& piece, Route route);
    void Query();
    void AskStatus();
    void AskProtection();
    void SendCommand();
    void SendRequest();
    void AskSize();
    void AskRegisters();
    void AskSpeed();
    void AskSdStatus();
    void MoveCard();

    bool MayBePlain() const;
    Route RandomRoute(bool for_writing);
    Pieces RandomPieces(Route route);
    Piece RandomPiece(uint32_t longest, uint32_t offset);
    void FillData(const Pieces& pieces);
    Sector SectorOf(const Piece& piece, uint32_t i) const;
    Chunks Scattered(uint32_t length, uint32_t most);
    void CopyToChunks(const Chunks& chunks, const Piece& piece);
    void CopyFromChunks(const Chunks& chunks, const Piece& piece);

    Answer SendWrite(Route route, const Pieces& pieces);
    Answer WritePlain(const Piece& piece);
    Answer WriteDirect(const Piece& piece);
    Answer WriteArray(const Piece& piece);
    Answer WriteElements(Route route, const Pieces& pieces);
    Answer WriteByCommand(const Piece& piece);
    Answer SendRead(Route route, const Piece& piece);
    Answer AnswerOf(int32_t result, uint32_t success);
    Answer PlainAnswer(int32_t result, const CardIoResult& record, uint32_t sectors);

    Expect BeginQuery(const char* what);
    Expect BeginRegisterQuery(const char* what);
    bool IsGone() const;
    void CheckQuery(int32_t result, Expect expect, int32_t gone, int32_t failure);
    void CheckRegister(const char* name, const uint8_t* found, size_t length);
    Expect ExpectRead(Route route) const;
    bool IsTakenByKernel(Route route) const;
    Expect ExpectWrite(Route route) const;
    void JudgeWrite(Route route, const Pieces& pieces, Answer answer, Expect expect);
    void NoteWritten(const Pieces& pieces, bool for_certain);
    void NoteShortWrite(const Piece& piece);
    void CompareCard(const Pieces& pieces);

    void BeginCall(const char* what, Route route, const Pieces& pieces);
    void Check(bool holds, const std::string& otherwise) const;
    void EndFaults();

    Unit& unit_;
    Bench& bench_;
    const Share share_;
    Random random_;
    Bytes data_;
    cardsim::LowBuffer memory_;
    uint32_t operation_ = 0;
    Planned planned_;
    std::string doing_;
    uint32_t noticed_ = 0;      // before the call
    bool was_latched_ = false;  // before the call
    int32_t result_ = 0;
    uint32_t bytes_done_ = 0;  // by a plain transfer
};

#endif
