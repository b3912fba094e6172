// SPDX-License-Identifier: MIT
#include "PMutex.h"

PMutex::PMutex() { pthread_mutex_init(&mutex_, nullptr); }

PMutex::~PMutex() { pthread_mutex_destroy(&mutex_); }
