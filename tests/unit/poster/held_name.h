/// Replaces the system's `getaddrinfo`, to which it forwards other names: simulates a name server
/// that does not answer.
#pragma once

/// While one exists, look-ups of `kHost` get no answer; afterwards they fail.
class HeldName {
  public:
    static constexpr const char* kHost = "held.test";

    HeldName();
    /// Lets pending look-ups fail and waits until they have returned.
    ~HeldName();
    HeldName(const HeldName&) = delete;
    HeldName& operator=(const HeldName&) = delete;

    /// Whether a look-up is pending.
    [[nodiscard]] static bool bIsLookedUp();
};
