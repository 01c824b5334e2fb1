/// A kind of message whose way through the engine is counted.
#pragma once

class MessageKind {
  public:
    MessageKind() = default;
    MessageKind(const MessageKind&) = delete;
    MessageKind& operator=(const MessageKind&) = delete;
    virtual ~MessageKind() = default;

    /// The source sends this many messages. They wait for the relay when this returns.
    virtual void send(int nMessages) = 0;

    /// Whether every receiver has got all of them, unchanged.
    [[nodiscard]] virtual bool bAllReceived(int nMessages) = 0;
};
