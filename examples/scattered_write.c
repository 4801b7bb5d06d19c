/* SPDX-License-Identifier: MIT */
/*
 * Write a file's header and body, which lie apart in memory, to consecutive sectors in one
 * request, and read them back into one piece.
 *
 *     scattered_write /dev/spda SECTOR
 *
 * It overwrites three sectors of the card.
 */
#include <carddev.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kHeaderBytes = 200, kBodyBytes = 3 * CARD_SECTOR_SIZE - kHeaderBytes };

/* The pieces' addresses travel in 32 bits. All memory has such addresses on the board. */
static MemoryChunk Piece(const void* start, uint32_t bytes)
{
    MemoryChunk piece;
    piece.addr = (uint32_t)(uintptr_t)start;
    piece.len = bytes;
    return piece;
}

/* The Mivo back-end counts direct transfers in sectors, the Zel back-end in bytes. */
static uint32_t LengthOf(const DrvInfo* card, uint32_t sectors)
{
    return card->dev_type == DEV_TYPE_MIVO ? sectors : sectors * CARD_SECTOR_SIZE;
}

static int WriteAndCompare(DrvInfo* card, uint32_t sector, uint8_t* header, uint8_t* body,
                           uint8_t* whole, MemoryChunkArray* pieces)
{
    memset(header, 'H', kHeaderBytes);
    memset(body, 'B', kBodyBytes);
    pieces->count = 2;
    pieces->chunk[0] = Piece(header, kHeaderBytes);
    pieces->chunk[1] = Piece(body, kBodyBytes);
    uint32_t retried = 0;
    if (DevDrctWrite(card, sector, LengthOf(card, 3), pieces, 0, &retried) < 0) {
        fprintf(stderr, "the write failed\n");
        return 1;
    }
    printf("written in two pieces%s\n", retried ? ", at the second attempt" : "");

    pieces->count = 1;
    pieces->chunk[0] = Piece(whole, kHeaderBytes + kBodyBytes);
    if (DevDrctRead(card, sector, LengthOf(card, 3), pieces) < 0) {
        fprintf(stderr, "the read failed\n");
        return 1;
    }
    if (memcmp(whole, header, kHeaderBytes) != 0 ||
        memcmp(whole + kHeaderBytes, body, kBodyBytes) != 0) {
        fprintf(stderr, "the card holds something else\n");
        return 1;
    }
    printf("read back in one\n");
    return 0;
}

int main(int argc, char** argv)
{
    DrvInfo card;
    memset(&card, 0, sizeof card);
    if (argc != 3 || strlen(argv[1]) >= sizeof card.dev_path) {
        fprintf(stderr, "usage: scattered_write NODE SECTOR\n");
        return 2;
    }
    strcpy(card.dev_path, argv[1]);
    if (DevDetect(&card) != 0 || DevInit(&card) < 0) {
        return 1;
    }
    uint8_t* header = malloc(kHeaderBytes);
    uint8_t* body = malloc(kBodyBytes);
    uint8_t* whole = malloc(kHeaderBytes + kBodyBytes);
    MemoryChunkArray* pieces = malloc(sizeof *pieces + 2 * sizeof pieces->chunk[0]);
    int result = 1;
    if (header != NULL && body != NULL && whole != NULL && pieces != NULL) {
        result = WriteAndCompare(&card, (uint32_t)strtoul(argv[2], NULL, 0), header, body, whole,
                                 pieces);
    }
    free(pieces);
    free(whole);
    free(body);
    free(header);
    DevExit(&card);
    return result;
}
