/* SPDX-License-Identifier: MIT */
/*
 * Say how a card is to be formatted, and write the master boot record that says so.
 *
 *     format_plan /dev/spda           print the plan
 *     format_plan /dev/spda --write   ... and write the record
 *
 * What is in the partition is a formatter's to write; the plan tells it where.
 */
#include <carddev.h>
#include <stdio.h>
#include <string.h>

/* The partition's type byte. */
static uint8_t TypeOf(const SdFormatParams* plan, uint32_t sectors)
{
    switch (plan->fs_type) {
        case SD_FS_FAT12:
            return 0x01;
        case SD_FS_FAT16:
            return sectors < 65536 ? 0x04 : 0x06;
        case SD_FS_FAT32:
            return 0x0C;
        default:
            return 0x07;
    }
}

static void PutLittleEndian(uint8_t* at, uint32_t value)
{
    for (int i = 0; i < 4; i++) {
        at[i] = (uint8_t)(value >> (8 * i));
    }
}

static int WriteBootRecord(DrvInfo* card, const SdFormatParams* plan, uint32_t card_sectors)
{
    static uint8_t record[CARD_SECTOR_SIZE];
    uint8_t* const entry = record + 446;
    const uint32_t sectors = card_sectors - plan->partition_start;
    memset(record, 0, sizeof record);
    memset(entry + 1, 0xFE, 3); /* heads and cylinders say: look at the sector numbers */
    memset(entry + 5, 0xFE, 3);
    entry[4] = TypeOf(plan, sectors);
    PutLittleEndian(entry + 8, plan->partition_start);
    PutLittleEndian(entry + 12, sectors);
    record[510] = 0x55;
    record[511] = 0xAA;
    CardIoResult result = {0, 0, 0};
    CARD_Write(card, record, 1, 0, 0, &result);
    if (result.error != 0 || result.length != CARD_SECTOR_SIZE) {
        fprintf(stderr, "the master boot record cannot be written\n");
        return 1;
    }
    printf("master boot record written\n");
    return 0;
}

static int Plan(DrvInfo* card, int is_to_be_written)
{
    static const char* const names[] = {"FAT12", "FAT16", "FAT32", "exFAT"};
    const uint32_t sectors = CARD_GetCardSize(card);
    SdFormatParams plan;
    if (sectors == 0 || sectors == CARD_CODE_ERROR || sectors == 0xFFFFFFFBu) {
        fprintf(stderr, "the size of the card cannot be read\n");
        return 1;
    }
    if (CalcSdParams(sectors, &plan) != 0) {
        fprintf(stderr, "no plan for a card of %u sectors\n", (unsigned)sectors);
        return 1;
    }
    printf("%s, partition at sector %u, data at sector %u\n", names[plan.fs_type],
           (unsigned)plan.partition_start, (unsigned)plan.data_start);
    return is_to_be_written ? WriteBootRecord(card, &plan, sectors) : 0;
}

int main(int argc, char** argv)
{
    DrvInfo card;
    memset(&card, 0, sizeof card);
    const int is_to_be_written = argc == 3 && strcmp(argv[2], "--write") == 0;
    if (argc < 2 || argc - is_to_be_written != 2 || strlen(argv[1]) >= sizeof card.dev_path) {
        fprintf(stderr, "usage: format_plan NODE [--write]\n");
        return 2;
    }
    strcpy(card.dev_path, argv[1]);
    if (DevDetect(&card) != 0 || DevInit(&card) < 0) {
        return 1;
    }
    const int result = Plan(&card, is_to_be_written);
    DevExit(&card);
    return result;
}
