/* SPDX-License-Identifier: MIT */
/*
 * Open a card, say what it is, and print the beginning of a sector.
 *
 *     open_and_read /dev/spda [SECTOR]
 */
#include <carddev.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int PrintSector(DrvInfo* card, uint32_t sector)
{
    static uint8_t bytes[CARD_SECTOR_SIZE];
    /* CARD_Read returns 0 either way; success stands in the record, and does not clear
     * its error. */
    CardIoResult result = {0, 0, 0};
    CARD_Read(card, bytes, 1, sector, 0, &result);
    if (result.error != 0 || result.length != CARD_SECTOR_SIZE) {
        fprintf(stderr, "sector %u cannot be read\n", (unsigned)sector);
        return 1;
    }
    printf("sector %u:", (unsigned)sector);
    for (int i = 0; i < 16; i++) {
        printf(" %02x", bytes[i]);
    }
    printf(" ...\n");
    return 0;
}

static int PrintCard(DrvInfo* card, uint32_t sector)
{
    uint16_t status = 0;
    if (CARD_Getstatus(card, &status) != CARD_CODE_OK || status != CARD_STATUS_READY) {
        fprintf(stderr, "there is no card in %s\n", card->dev_path);
        return 1;
    }
    const uint32_t sectors = CARD_GetCardSize(card);
    /* The sizes that mean a failure. */
    if (sectors == 0 || sectors == CARD_CODE_ERROR || sectors == 0xFFFFFFFBu) {
        fprintf(stderr, "the size of the card cannot be read\n");
        return 1;
    }
    printf("%u sectors, %s\n", (unsigned)sectors,
           CARD_GetWriteProtect(card) == 0 ? "writable" : "protected");
    return PrintSector(card, sector);
}

int main(int argc, char** argv)
{
    DrvInfo card;
    memset(&card, 0, sizeof card);
    if (argc < 2 || strlen(argv[1]) >= sizeof card.dev_path) {
        fprintf(stderr, "usage: open_and_read NODE [SECTOR]\n");
        return 2;
    }
    const uint32_t sector = argc > 2 ? (uint32_t)strtoul(argv[2], NULL, 0) : 0;

    strcpy(card.dev_path, argv[1]);
    /* Where these fail, the library has printed why. DevExit is for a device that DevInit
     * has opened. */
    if (DevDetect(&card) != 0 || DevInit(&card) < 0) {
        return 1;
    }
    const int result = PrintCard(&card, sector);
    DevExit(&card);
    return result;
}
