/* api.h - marks what libkesto-client.so shows; everything else in it is hidden. */
#pragma once

#define KESTO_CLIENT_API __attribute__((visibility("default")))
