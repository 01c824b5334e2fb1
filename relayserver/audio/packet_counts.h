/// How much audio went through this process. Main thread only.
#pragma once

/// Audio packets received from local senders.
extern unsigned nAudioPacketsRcvd;
