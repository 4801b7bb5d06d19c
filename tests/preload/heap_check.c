/* SPDX-License-Identifier: MIT */
/*
 * Whatever a program allocates, and its stack, are within the drivers' reach and keep what
 * is written to them, from two threads at once. Exit code 0 when all of it held.
 */
#include <errno.h>
#include <malloc.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int IsWrong(const char* what, const void* block, size_t alignment)
{
    const uint64_t address = (uintptr_t)block;
    if (block == NULL || address + (1u << 20) > UINT64_C(0x100000000) || address % alignment != 0) {
        fprintf(stderr, "%s gave %p\n", what, block);
        return 1;
    }
    return 0;
}

static int Holds(const uint8_t* block, int value, size_t length)
{
    for (size_t i = 0; i < length; i++) {
        if (block[i] != (uint8_t)value) {
            return 0;
        }
    }
    return 1;
}

static int Aligned(void)
{
    void* given = NULL;
    int wrong = IsWrong("aligned_alloc", aligned_alloc(4096, 8192), 4096) +
                IsWrong("memalign", memalign(512, 100), 512);
    wrong += posix_memalign(&given, 65536, 100) != 0 || IsWrong("posix_memalign", given, 65536);
    free(given);
    return wrong;
}

static void* Churn(void* seed)
{
    enum { kBlocks = 100 };
    uint8_t* blocks[kBlocks] = {NULL};
    size_t lengths[kBlocks] = {0};
    unsigned state = (unsigned)(uintptr_t)seed;
    for (int step = 0; step < 20000; step++) {
        state = state * 1103515245 + 12345;
        const unsigned i = state / 65536 % kBlocks;
        const size_t length = state / 256 % 5000;
        if (!Holds(blocks[i], (int)i, lengths[i])) {
            return "a block changed";
        }
        if (step % 3 == 0) {
            free(blocks[i]);
            blocks[i] = calloc(length, 1);
            if (IsWrong("calloc", blocks[i], 8) || !Holds(blocks[i], 0, length)) {
                return "calloc";
            }
        } else {
            const size_t kept = length < lengths[i] ? length : lengths[i];
            blocks[i] = realloc(blocks[i], length + 1);
            if (IsWrong("realloc", blocks[i], 8) || !Holds(blocks[i], (int)i, kept)) {
                return "realloc";
            }
        }
        memset(blocks[i], (int)i, length);
        lengths[i] = length;
    }
    for (int i = 0; i < kBlocks; i++) {
        free(blocks[i]);
    }
    return NULL;
}

int main(void)
{
    int on_stack = 0;
    int wrong = IsWrong("the stack", &on_stack, 1) + Aligned();
    void* const large = malloc(100u << 20);
    wrong += IsWrong("malloc", large, 8);
    free(large);
    /* Out of the compiler's sight, which would say that no heap is that large. */
    volatile size_t much = SIZE_MAX - 4096;
    errno = 0;
    wrong += malloc(much) != NULL || errno != ENOMEM;
    wrong += calloc(much, 4) != NULL;

    pthread_t other;
    void* said = NULL;
    pthread_create(&other, NULL, Churn, (void*)(uintptr_t)7);
    void* const said_here = Churn((void*)(uintptr_t)11);
    pthread_join(other, &said);
    if (said != NULL || said_here != NULL) {
        fprintf(stderr, "%s\n", (char*)(said != NULL ? said : said_here));
        wrong++;
    }
    return wrong;
}
