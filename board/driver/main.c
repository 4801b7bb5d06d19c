/* SPDX-License-Identifier: MIT */
#include "cards.h"

#include <linux/device.h>
#include <linux/module.h>

DEFINE_SPINLOCK(cards_lock);
struct class *cards_class;

static int __init cards_init(void)
{
    int failed;

    cards_class = class_create(THIS_MODULE, "cards");
    if (IS_ERR(cards_class))
        return PTR_ERR(cards_class);
    control_init();
    failed = zel_init();
    if (failed)
        goto no_zel;
    failed = mivo_init();
    if (failed)
        goto no_mivo;
    failed = ricoh_init();
    if (failed)
        goto no_ricoh;
    return 0;

no_ricoh:
    mivo_exit();
no_mivo:
    zel_exit();
no_zel:
    control_exit();
    class_destroy(cards_class);
    return failed;
}

static void __exit cards_exit(void)
{
    control_exit();
    ricoh_exit();
    mivo_exit();
    zel_exit();
    class_destroy(cards_class);
}

module_init(cards_init);
module_exit(cards_exit);
MODULE_DESCRIPTION("Simulated memory cards behind the drivers of three card controllers");
MODULE_LICENSE("Dual MIT/GPL");
