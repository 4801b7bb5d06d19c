// SPDX-License-Identifier: MIT
//
// What a caller may rely on whichever back-end serves the card, and what differs,
// through the public calls alone.
#include "tests/backends/fixture.h"

namespace {

INSTANTIATE_TEST_SUITE_P(All, Backends, testing::Values(kRicohSd, kZel, kMivo), NameOf);

TEST_P(Backends, AreFoundByTheNode)
{
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(0, DevDetect(&handle)); }));
    EXPECT_EQ(backend.type, handle.dev_type);
    EXPECT_EQ(backend.index, handle.dev_index);
    const DrvOps* const tables[] = {&zel_ops, &mivo_ops, &ricoh_sd_ops};
    EXPECT_EQ(tables[backend.type], handle.ops);
    EXPECT_EQ(nullptr, handle.priv);
    handle.ops = nullptr;
}

TEST_P(Backends, AnswerEveryQuery)
{
    Open();
    EXPECT_EQ("", Printed([&] {
                  EXPECT_EQ(0, CARD_Init(&handle, 7, nullptr));
                  uint16_t status = 0;
                  EXPECT_EQ(0, CARD_Getstatus(&handle, &status));
                  EXPECT_EQ(CARD_STATUS_READY, status);
                  EXPECT_EQ(0, CARD_GetR1Status(&handle));
                  EXPECT_EQ(kSectors, CARD_GetCardSize(&handle));
                  EXPECT_EQ(0, CARD_GetWriteProtect(&handle));
                  for (const int32_t command : {0, 1, 2, 3, 4, 5, -1}) {
                      EXPECT_EQ(0, CARD_Ioctl(&handle, command, 9));
                  }
                  EXPECT_EQ(-25, DevIoctl(&handle, 0x20007299, &status));
              }));
}

// Twice: the second answer is a copy of the first.
TEST_P(Backends, AnswerWithTheCardsRegisters)
{
    Open();
    const Bytes cid = bench->Register(backend.place, "cid");
    const Bytes csd = bench->Register(backend.place, "csd");
    const Bytes sd_status = bench->Register(backend.place, "sd_status");
    ASSERT_EQ(size_t{CARD_SD_STATUS_SIZE}, sd_status.size());
    EXPECT_EQ("", Printed([&] {
                  for (int time = 0; time < 2; time++) {
                      CardInfo info;
                      memset(&info, 0xEE, sizeof info);
                      EXPECT_EQ(0, CARD_Getinfo(&handle, &info));
                      EXPECT_EQ(0,
                                memcmp(&info.cid[backend.cid_at], cid.data(), 16 - backend.cid_at));
                      EXPECT_TRUE(backend.cid_at == 0 || info.cid[0] == 0);
                      EXPECT_EQ(0, memcmp(info.csd, csd.data(), 16));

                      uint8_t status[CARD_SD_STATUS_SIZE + 1];
                      memset(status, 0xEE, sizeof status);
                      EXPECT_EQ(0, CARD_SecureGetinfo(&handle, status));
                      EXPECT_EQ(0, memcmp(status, sd_status.data(), CARD_SD_STATUS_SIZE));
                      EXPECT_EQ(0xEE, status[CARD_SD_STATUS_SIZE]);

                      CardSpeedInfo speed;
                      memset(&speed, 0xEE, sizeof speed);
                      EXPECT_EQ(0, CARD_GetSpeedInfo(&handle, &speed));
                      static_assert(sizeof speed == sizeof info);
                      if (backend.type == DEV_TYPE_RICOH_SD) {
                          EXPECT_EQ(0, memcmp(&speed, &info, sizeof info));
                      } else {
                          Bytes rest(sizeof speed - 5);
                          memcpy(rest.data(), reinterpret_cast<uint8_t*>(&speed) + 5, rest.size());
                          EXPECT_EQ(Bytes(rest.size(), 0), rest);
                      }
                  }
              }));
    bench->ClearCalls(backend.place);
    CardInfo info = {};
    EXPECT_EQ(0, CARD_Getinfo(&handle, &info));
    EXPECT_TRUE(bench->Calls(backend.place).empty());
}

TEST_P(Backends, TellThatACardIsProtected)
{
    bench->Protect(backend.place, true);
    Open();
    EXPECT_NE(0, CARD_GetWriteProtect(&handle));
    const Bytes before = OnCard(9, 1);
    CardIoResult result = {1, 2, 3};
    EXPECT_EQ(0, CARD_Read(&handle, memory.data(), 1, 9, 0, &result));
    EXPECT_EQ(2, result.error);
    EXPECT_EQ(512, result.length);
    memset(memory.data(), 0x5C, 512);
    EXPECT_EQ(0, CARD_Write(&handle, memory.data(), 1, 9, 0, &result));
    EXPECT_EQ(10, result.error);
    EXPECT_EQ(before, OnCard(9, 1));
}

TEST_P(Backends, KeepWhatIsWrittenPlainly)
{
    Open();
    Bytes shadow = OnCard(0, kSectors);
    EXPECT_EQ("", Printed([&] {
                  for (int step = 0; step < 80 && !HasFailure(); step++) {
                      const uint32_t sectors = 1 + Below(100);
                      const uint32_t first = step == 0   ? 0
                                             : step == 1 ? kSectors - sectors
                                                         : Below(kSectors - sectors + 1);
                      uint8_t* const place = memory.data() + Below(4096);
                      const auto length = static_cast<int32_t>(sectors * 512);
                      CardIoResult result = {0x5A, 0x6B, 0};
                      if (step % 2 == 0) {
                          const Bytes written = Random(sectors * 512);
                          memcpy(place, written.data(), written.size());
                          EXPECT_EQ(0, CARD_Write(&handle, place, sectors, first, 1, &result));
                          std::copy(written.begin(), written.end(), &shadow[first * 512]);
                      } else {
                          EXPECT_EQ(0, CARD_Read(&handle, place, sectors, first, 1, &result));
                          EXPECT_EQ(0, memcmp(&shadow[first * 512], place, sectors * 512));
                      }
                      EXPECT_EQ(0x5A, result.reserved);
                      EXPECT_EQ(0x6B, result.error);
                      EXPECT_EQ(length, result.length);
                      EXPECT_TRUE(Slice(shadow, first, sectors) == OnCard(first, sectors)) << step;
                  }
              }));
    EXPECT_TRUE(shadow == OnCard(0, kSectors));
}

TEST_P(Backends, EndATransferWithTheCard)
{
    Open();
    CardIoResult result = {};
    EXPECT_EQ(0, CARD_Read(&handle, memory.data(), 5, kSectors - 2, 0, &result));
    EXPECT_EQ(0, result.error);
    EXPECT_EQ(1024, result.length);
    EXPECT_EQ(0, CARD_Write(&handle, memory.data(), 5, kSectors - 2, 0, &result));
    EXPECT_EQ(1024, result.length);
    result.length = 77;
    Printed([&] { EXPECT_EQ(0, CARD_Read(&handle, memory.data(), 1, kSectors + 1, 0, &result)); });
    EXPECT_EQ(10, result.error);
    EXPECT_EQ(77, result.length);
}

// The result of a direct transfer is its length, in the back-end's own unit.
TEST_P(Backends, MoveScatteredSectorsWhereOffered)
{
    Open();
    Chunks chunks = {};
    auto* const list = chunks.list();
    if (!Direct()) {
        uint32_t retried = 5;
        EXPECT_EQ(NotOffered("DevDrctRead", "DrctRead") + NotOffered("DevDrctWrite", "DrctWrite"),
                  Printed([&] {
                      EXPECT_EQ(-22, DevDrctRead(&handle, 0, 512, list));
                      EXPECT_EQ(-22, DevDrctWrite(&handle, 0, 512, list, 0, &retried));
                  }));
        EXPECT_EQ(5u, retried);
        EXPECT_EQ(Bytes(512, 0), OnCard(0, 1));
        return;
    }
    Bytes shadow = OnCard(0, kSectors);
    for (int step = 0; step < 60 && !HasFailure(); step++) {
        const uint32_t sectors = 1 + Below(100);
        const uint32_t first = Below(kSectors - sectors + 1);
        const uint32_t bytes = sectors * 512;
        const uint32_t cut = 1 + Below(bytes - 2);
        const uint32_t cut2 = cut + 1 + Below(bytes - cut - 1);
        const uint32_t at = memory.address() + Below(2048);
        // The last piece may adjoin; the second never does.
        chunks = {3,
                  {{at, cut},
                   {at + cut + 11, cut2 - cut},
                   {at + cut2 + 11 + Below(2), bytes - cut2},
                   {}}};
        const auto expected = static_cast<int32_t>(Length(sectors));
        uint32_t retried = 5;
        Bytes moved;
        if (step % 2 == 0) {
            moved = Random(bytes);
            size_t done = 0;
            for (const MemoryChunk& piece : Pieces(chunks)) {
                memcpy(At(piece.addr), moved.data() + done, piece.len);
                done += piece.len;
            }
            EXPECT_EQ(expected, DevDrctWrite(&handle, first, Length(sectors), list,
                                             static_cast<uint32_t>(step % 4 / 2), &retried));
            EXPECT_EQ(0u, retried);
            std::copy(moved.begin(), moved.end(), &shadow[first * 512]);
        } else {
            EXPECT_EQ(expected, DevDrctRead(&handle, first, Length(sectors), list));
            for (const MemoryChunk& piece : Pieces(chunks)) {
                moved.insert(moved.end(), At(piece.addr), At(piece.addr) + piece.len);
            }
            EXPECT_EQ(0, memcmp(&shadow[first * 512], moved.data(), bytes));
        }
        EXPECT_TRUE(Slice(shadow, first, sectors) == OnCard(first, sectors)) << step;
    }
    EXPECT_TRUE(shadow == OnCard(0, kSectors));
}

TEST_P(Backends, MoveTheArrayFormsPiecesWhereOffered)
{
    Open();
    const Bytes written = Random(4096);
    memcpy(memory.data(), written.data(), 4096);
    MemoryArray array = {};
    array.count = MEMORY_ARRAY_PIECES;
    for (uint32_t i = 0; i < MEMORY_ARRAY_PIECES; i++) {
        array.addr[i] = memory.address() + 512 * (7 - i);
        array.len[i] = 512;
    }
    uint32_t retried = 5;
    if (!Direct()) {
        EXPECT_EQ(NotOffered("DevDrctRead", "DrctRead") + NotOffered("DevDrctWrite", "DrctWrite"),
                  Printed([&] {
                      EXPECT_EQ(-22, DevDrctReadArray(&handle, 0, 4096, &array));
                      EXPECT_EQ(-22, DevDrctWriteArray(&handle, 0, 4096, &array, 0, &retried));
                  }));
        EXPECT_EQ(5u, retried);
        EXPECT_EQ(written, Bytes(memory.data(), memory.data() + 4096));
        return;
    }
    const auto expected = static_cast<int32_t>(Length(8));
    bench->ZeroFreshBlocks(4 + 8 * MEMORY_ARRAY_PIECES);
    EXPECT_EQ(expected, DevDrctWriteArray(&handle, 50, Length(8), &array, 0, &retried));
    EXPECT_EQ(0u, retried);
    Bytes reversed;
    for (size_t i = 8; i-- > 0;) {
        reversed.insert(reversed.end(), &written[i * 512], &written[i * 512] + 512);
    }
    EXPECT_EQ(reversed, OnCard(50, 8));
    memset(memory.data(), 0, 4096);
    EXPECT_EQ(expected, DevDrctReadArray(&handle, 50, Length(8), &array));
    EXPECT_EQ(written, Bytes(memory.data(), memory.data() + 4096));
}

// Where these are not offered they count as done, and nothing is.
TEST_P(Backends, WriteRunsOfSectorsWhereOffered)
{
    Open();
    const Bytes written = Random(2048);
    memcpy(memory.data(), written.data(), written.size());
    const uint32_t at = memory.address();
    BlockListEntry second = {at + 512, 1, 900, nullptr};
    BlockListEntry first = {at, 1, 700, &second};
    BlockList list = {2, &first};
    const std::string printed = Printed([&] {
        EXPECT_EQ(0, DevDrctRMW(&handle, &list));
        first.sector = 701;
        second.sector = 901;
        EXPECT_EQ(0, DevFatWrite(&handle, &list));
        EXPECT_EQ(0, DevSdCmdWrite(&handle, memory.data() + 1024, 2, 1100, 24, 0));
    });
    const Bytes one(&written[0], &written[0] + 512);
    const Bytes two(&written[512], &written[512] + 512);
    const Bytes rest(&written[1024], &written[1024] + 1024);
    EXPECT_EQ(Direct()
                  ? ""
                  : NotOffered("DevDrctRMW", "DrctRMW") + NotOffered("DevFatWrite", "FatWrite") +
                        NotOffered("DevSdCmdWrite", "SdCmdWrite"),
              printed);
    for (const uint32_t sector : {700u, 701u}) {
        EXPECT_EQ(Direct() ? one : Bytes(512, 0), OnCard(sector, 1));
        EXPECT_EQ(Direct() ? two : Bytes(512, 0), OnCard(sector + 200, 1));
    }
    EXPECT_EQ(Direct() ? rest : Bytes(1024, 0), OnCard(1100, 2));
}

// Without real-time control there is nothing to wait for.
TEST_P(Backends, AnswerForRealTimeControl)
{
    Open();
    for (const char* key : {"rt_status", "delay_status", "on_for_wait"}) {
        bench->SetState("rtctrl", key, 0);
    }
    bench->ClearCalls(backend.place);
    bench->ClearCalls("rtctrl");
    EXPECT_EQ("", Printed([&] {
                  EXPECT_EQ(backend.real_time ? 0 : 1, DevCheckRt(&handle));
                  EXPECT_EQ(backend.real_time ? 0 : 1, DevCheckDelay(&handle));
                  EXPECT_EQ(0, DevRTOn4Wait(&handle));
                  DevLockRTOn(&handle);
                  DevUnlockRTOn(&handle);
              }));
    EXPECT_EQ(backend.real_time ? 5u : 0u, bench->Calls("rtctrl").size());
    EXPECT_TRUE(bench->Calls(backend.place).empty());
}

TEST_P(Backends, CallBackWhereTheyCanTellAnEject)
{
    Open();
    ASSERT_EQ(0, CARD_Init(&handle, 0, CountEject));
    uint16_t status = 0;
    EXPECT_EQ(0, CARD_Getstatus(&handle, &status));
    EXPECT_EQ(0, ejects);
    bench->Eject(backend.place);
    int expected = 0;
    for (int round = 0; round < 3; round++) {
        CardIoResult result = {0, 0, 77};
        EXPECT_EQ(0, CARD_Read(&handle, memory.data(), 1, 0, 0, &result));
        EXPECT_EQ(10, result.error);
        EXPECT_EQ(77, result.length);
        expected += backend.tells_eject ? 1 : 0;
        EXPECT_EQ(expected, ejects);
        status = 0;
        EXPECT_EQ(backend.tells_eject ? CARD_CODE_REMOVED : 0, CARD_Getstatus(&handle, &status));
        expected += backend.tells_eject ? 1 : 0;
        EXPECT_EQ(expected, ejects);
    }
    if (backend.tells_eject) {
        CardInfo info = {};
        EXPECT_EQ(CARD_CODE_REMOVED, CARD_Getinfo(&handle, &info));
        EXPECT_EQ(0xFFFFFFFBu, CARD_GetCardSize(&handle));
        EXPECT_EQ(-5, CARD_GetWriteProtect(&handle));
        EXPECT_EQ(-5, DevSdCmdWrite(&handle, memory.data(), 1, 0, 0, 0));
        EXPECT_EQ(expected + 4, ejects);
    } else {
        EXPECT_EQ(CARD_STATUS_READY, status);
        EXPECT_EQ("[zel:RicohSD_CardGetSize(#)](E)BLKGETSIZE failed : No such device\n",
                  Printed([&] { EXPECT_EQ(0u, CARD_GetCardSize(&handle)); }));
    }
}

// Nobody is called and nothing is looked at without a callback.
TEST_P(Backends, LeaveAnEjectToTheDriverWithoutACallback)
{
    Open();
    ASSERT_EQ(0, CARD_Init(&handle, 5, nullptr));
    bench->Eject(backend.place);
    CardIoResult result = {0, 0, 77};
    bench->ClearCalls(backend.place);
    EXPECT_EQ(0, CARD_Read(&handle, memory.data(), 1, 0, 0, &result));
    // What a block device's reads fail with is its cache's word.
    EXPECT_EQ(backend.plain_node == BenchNode::Block ? EIO : ENXIO, errno);
    EXPECT_EQ(10, result.error);
    EXPECT_TRUE(SentRequests().empty());
    uint16_t status = 0;
    EXPECT_EQ(0, CARD_Getstatus(&handle, &status));
    EXPECT_EQ(CARD_STATUS_READY, status);
    EXPECT_EQ(0, ejects);
}

TEST_P(Backends, AreDoneWithAfterExit)
{
    Open();
    EXPECT_EQ("", Printed([&] { DevExit(&handle); }));
    const DrvInfo zeroed = {};
    EXPECT_EQ(0, memcmp(&zeroed, &handle, sizeof handle));
    EXPECT_EQ("", bench->LeftBehind());
    bench->ClearCalls(backend.place);
    uint16_t status = 0;
    EXPECT_EQ("[drv:CARD_Getstatus(#)](E)Invalid wrapper low-level driver info!\n",
              Printed([&] { EXPECT_EQ(10, CARD_Getstatus(&handle, &status)); }));
    EXPECT_TRUE(bench->Calls(backend.place).empty());
}

TEST_P(Backends, ServeAgainAfterExit)
{
    for (int round = 0; round < 3; round++) {
        SCOPED_TRACE(round);
        // Registers are asked for afresh.
        Bytes csd = bench->Register(backend.place, "csd");
        csd[15] = static_cast<uint8_t>(round);
        bench->SetRegister(backend.place, "csd", csd);
        handle = HandleFor(backend.node);
        Open();
        ASSERT_EQ(0, CARD_Init(&handle, 0, CountEject));
        CardIoResult result = {};
        const Bytes written = Random(512);
        Bytes read(512);
        EXPECT_EQ(0, CARD_Write(&handle, written.data(), 1, 77, 0, &result));
        EXPECT_EQ(0, CARD_Read(&handle, read.data(), 1, 77, 0, &result));
        EXPECT_EQ(0, result.error);
        EXPECT_EQ(written, read);
        CardInfo info = {};
        EXPECT_EQ(0, CARD_Getinfo(&handle, &info));
        EXPECT_EQ(0, memcmp(info.csd, csd.data(), 16));
        EXPECT_EQ(0, ejects);
        // What an eject has left behind does not outlast the exit.
        bench->Eject(backend.place);
        EXPECT_EQ(0, CARD_Read(&handle, read.data(), 1, 77, 0, &result));
        EXPECT_EQ(10, result.error);
        EXPECT_EQ(backend.tells_eject ? 1 : 0, ejects);
        Exit();
        EXPECT_EQ("", bench->LeftBehind());
        ejects = 0;
        Insert();
    }
}

}  // namespace
