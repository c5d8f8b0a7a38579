/* audio.h - tells the device's audio service who has come and who has gone. It does not wait for an answer, and
 * does nothing without a session bus. Network thread only. */
#pragma once

struct Client;

void audio_client_authenticated(const Client *client);
void audio_client_deauthenticated(const Client *client);
