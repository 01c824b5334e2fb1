/// A kind of message whose path through the engine is counted.
#pragma once

class MessageKind {
  public:
    MessageKind() = default;
    MessageKind(const MessageKind&) = delete;
    MessageKind& operator=(const MessageKind&) = delete;
    virtual ~MessageKind() = default;

    /// Sends this many messages from the source. They are in the relay's socket when this returns.
    virtual void send(int nMessages) = 0;

    /// Whether every receiver has received all of them, unchanged.
    [[nodiscard]] virtual bool bAllReceived(int nMessages) = 0;
};
