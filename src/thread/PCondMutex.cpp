// SPDX-License-Identifier: MIT
#include "PCondMutex.h"

PCondMutex::PCondMutex() { pthread_cond_init(&cond_, nullptr); }

// The condition goes first; the base destroys the mutex afterwards.
PCondMutex::~PCondMutex() { pthread_cond_destroy(&cond_); }
