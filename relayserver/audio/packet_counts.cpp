#include "relayserver/audio/packet_counts.h"

unsigned nAudioPacketsRcvd = 0;
