// SPDX-License-Identifier: MIT
//
// The Mivo back-end offers no operation yet: every call on one of its devices is
// answered by the frame.
#include "carddev.h"

const DrvOps mivo_ops = {};
