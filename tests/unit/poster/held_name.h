/// Stands before the system's `getaddrinfo`, which it passes on to: plays a name server that does
/// not answer.
#pragma once

/// While one lives, nobody is told the address of `kHost`. Afterwards it has none.
class HeldName {
  public:
    static constexpr const char* kHost = "held.test";

    HeldName();
    /// Lets go of those who ask, and waits until they have gone.
    ~HeldName();
    HeldName(const HeldName&) = delete;
    HeldName& operator=(const HeldName&) = delete;

    /// Whether somebody waits for the address.
    [[nodiscard]] static bool bIsAskedFor();
};
