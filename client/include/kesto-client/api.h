/* api.h - marks what libkesto-client.so shows and, within that, what it does not. */
#pragma once

#define KESTO_CLIENT_API    __attribute__((visibility("default")))
#define KESTO_CLIENT_HIDDEN __attribute__((visibility("hidden")))
