/* audio.h - tells the device's audio service who has come and who has gone, without waiting for its answer:
 * "@localhost" with no_lock, else the client's id. Does nothing without a session bus, and for an id that is not UTF-8.
 * Network thread only. */
#pragma once

struct Client;

void audio_client_authenticated(const Client *client);
void audio_client_deauthenticated(const Client *client);
