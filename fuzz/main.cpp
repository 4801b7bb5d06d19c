// SPDX-License-Identifier: MIT
//
// The fuzzer runs on a stack below 4 GiB, whose addresses the drivers' records can carry:
// a static one, which the linker places there.
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

extern "C" {

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
int LLVMFuzzerRunDriver(int* argc, char*** argv, int (*test)(const uint8_t* data, size_t size));

}  // extern "C"

namespace {

alignas(65536) unsigned char stack[size_t{16} << 20];

struct Program {
    int argc;
    char** argv;
    int result;
};

void* Run(void* program)
{
    auto* self = static_cast<Program*>(program);
    self->result = LLVMFuzzerRunDriver(&self->argc, &self->argv, LLVMFuzzerTestOneInput);
    return nullptr;
}

}  // namespace

int main(int argc, char** argv)
{
    Program program = {argc, argv, 1};
    pthread_attr_t attributes;
    pthread_t thread;
    if (pthread_attr_init(&attributes) != 0 ||
        pthread_attr_setstack(&attributes, stack, sizeof stack) != 0 ||
        pthread_create(&thread, &attributes, Run, &program) != 0) {
        fprintf(stderr, "the fuzzer's thread cannot be started\n");
        return EXIT_FAILURE;
    }
    // The fuzzer's clock and Ctrl-C are for its own thread.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    pthread_join(thread, nullptr);
    return program.result;
}
