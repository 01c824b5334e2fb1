/// The base of every protocol message: one image in wire form, its header, its fields and its
/// envelopes.
///
/// Message image (numbers of the header are raw 32-bit values in host order, little-endian on
/// x86-64):
///   0  u8    type; 255 reads back as unset (-1)
///   1  u32   sender id
///   5  u32   destination id, 0 when not addressed
///   9  text  0..499 payload bytes: fields, each with backslash, '~' and NUL escaped by a backslash
///   and
///            ended by one '~'
///
/// Stream frame:
///   0  u8         L, 1..255
///   1  2*L - 1    the image; an image of even length is padded with one '~'
///
/// Datagram, at most 524 bytes:
///   0  12 zero bytes   12  u32 sender id   16  the image
///
/// The largest image is 508 bytes, and padding makes it 509. Hence an image of 509 bytes is valid
/// when it ends in '~'; any other image above 508 bytes is oversize: it is kept for reading as far
/// as it fits, and never sent. All operations are for one thread, the one that owns the message.
#pragma once

#include <netinet/in.h>

#include <array>
#include <iosfwd>
#include <string>
#include <string_view>

#include "orvex/message_codes.h"

/// The relay's own client id, 0 until the connection server has assigned one. Written into the
/// header of every message when it is constructed. Set by the connection-server link, main thread
/// only.
extern unsigned nSenderID;

/// Takes the id that the connection server has assigned to this relay.
void assignSenderID(unsigned nID);

/// The sender id of a raw image; all bits set (-1) when there is no image or it has fewer than 9
/// bytes.
unsigned GetNetMessageSenderID(const char* chpInMsg, int nInMsgLen);

namespace Orvex {

class RSAEncrypter;
class RSADecrypter;

class NetMessage {
  public:
    static constexpr int nMSG_HDR_LEN = 9;
    static constexpr int nMAX_MSG_LEN = 508;
    static constexpr unsigned nMAX_MSG_DATA_LEN = 499;
    static constexpr unsigned nMAX_UDP_MSG_LEN = 524;
    static constexpr char chESC = '\\';
    static constexpr char chDELIM = '~';
    /// A maximal image with its pad, as a stream frame carries it: what `ToChars` may need room
    /// for.
    static constexpr int nMAX_PADDED_MSG_LEN = nMAX_MSG_LEN + 1;
    /// The time-out of every wait while a message is written.
    static constexpr int nSEND_TIMEOUT_MICROSECS = 1000;

    /// Header only, type unset, not in sync.
    NetMessage();
    /// Header only, in sync.
    explicit NetMessage(long type);
    /// With `bCreate` a header-only message of `type`, not in sync; otherwise a received image (the
    /// type then comes from its first byte).
    NetMessage(bool bCreate, long type, const char* buf, int len);
    /// A received image. Lengths are bounded: a negative one counts as 0, and no more than 509
    /// bytes are kept.
    NetMessage(const char* buf, int len);

    NetMessage(const NetMessage& rOther);
    NetMessage& operator=(const NetMessage& rOther);
    virtual ~NetMessage() = default;

    // Header and ids. Header bytes that a short image lacks read as zero.

    /// Writes type, `nSenderID` and the destination into the header; stores 9 through `npMsgHdrLen`
    /// if given.
    void basePack(int* npMsgHdrLen);
    /// Takes type and destination from the header.
    void baseUnpack();
    /// The type in byte 0 of the image.
    void GetNetMsgType(NetMessageType& nmtrOutType) const;
    [[nodiscard]] NetMessageType GetNetMsgType() const;
    void GetSenderID(unsigned& nrOutSenderID) const;
    [[nodiscard]] unsigned GetSenderID() const;
    /// Overwrites the sender id in the image; neither the fields nor the sync mark are touched.
    void ChangeSenderID(unsigned nNewSenderID);
    void GetDestID(unsigned& nrOutDestID) const;
    [[nodiscard]] unsigned GetDestID() const;
    void SetDestID(unsigned nNewDestID);

    /// Bytes of the image, 0..509, the pad of a framed or received image included.
    [[nodiscard]] int GetMessageLen() const { return nMsgLen; }
    /// `GetMessageLen()` less the header: negative for an image shorter than that.
    [[nodiscard]] int GetPayloadLen() const { return nMsgLen - nMSG_HDR_LEN; }
    /// Sets the image's length for this many payload bytes, which have been written, and returns
    /// it. A negative count is taken as 0, and one beyond the array makes the message oversize.
    int UpdateLength(int nPayloadLen);

    // Packing and sync. In sync means that the image reflects the fields.

    void Pack(int* npMsgHdrLen);
    void Unpack();
    [[nodiscard]] bool isInSync() const { return bInSync; }
    void MarkInSync() { bInSync = true; }
    void MarkNotInSync() { bInSync = false; }
    /// Takes over the image of `fromMsg` and unpacks it, if its type is this message's (or this one
    /// has none). Otherwise returns false and changes nothing.
    [[nodiscard]] bool bCreateFromNetMsg(const NetMessage& fromMsg);

    // Fields.

    /// Escapes `sInField` and writes it with its terminator at offset `nrIndex` of the payload area
    /// `chpOutData` (499 bytes), and advances `nrIndex`. A field that does not fit loses its tail;
    /// without room for a terminator nothing is written.
    static void SetField(std::string sInField, int& nrIndex, char* chpOutData);
    /// Reads the field at offset `nrIndex` of `chpInData`, of which `nrLen` bytes are left; both
    /// are advanced past its terminator. Past the end the field is empty and `nrLen` becomes
    /// negative. At most 499 (escaped) bytes of a field are kept.
    static void GetField(const char* chpInData, int& nrLen, int& nrIndex, std::string& srOutField);
    static void AddEscapes(std::string& srInString);
    static void DeleteEscapes(std::string& srInString);

    // Output. Only the stream forms (frame, GetSendBuffer, Send) pack a message that is not in
    // sync.

    /// Copies the image; both pointers may be null. `chpOutNetMsg` needs room for
    /// nMAX_PADDED_MSG_LEN bytes.
    void ToChars(char* chpOutNetMsg, int* npOutNetMsgLen) const;
    /// The stream frame as a view of this object, valid until the message is changed; empty when
    /// the message is oversize. Gives the same bytes any number of times. A pad becomes part of the
    /// image.
    [[nodiscard]] std::string_view frame();
    /// Appends the stream frame to `out`, or the bare image (without a pad beyond 508 bytes) when
    /// `bSendLen` is false. An oversize message appends nothing.
    void GetSendBuffer(bool bSendLen, std::string& out);
    /// Writes the datagram with this process's `nSenderID`. `outlen` holds the capacity of `out`
    /// and receives the length, which is also returned: 0, and nothing written, if the capacity is
    /// below nMAX_UDP_MSG_LEN or the message is oversize.
    int GetUdpSendToBuffer(char* out, int* outlen) const;
    /// Writes the datagram with the message's own sender id; both pointers may be null, and
    /// `chpOutNetMsg` needs room for nMAX_UDP_MSG_LEN bytes. The length is 0 for an oversize
    /// message.
    void ToRTPFormatChars(char* chpOutNetMsg, int* npOutNetMsgLen) const;
    /// Sends the datagram and returns the result of `sendto`; -1 with EMSGSIZE for an oversize
    /// message.
    int SendTo(int nUdpSock, sockaddr_in sipTo) const;

    /// Writes the message in one go; returns the bytes written, 0 for an oversize message, which
    /// does not touch the socket, or -1 if not all of it was written. The frame is written from
    /// this object, without a copy. `MessageSocket` is RelayMessageSocket or a stand-in with the
    /// two members used here.
    template <class MessageSocket>
    int Send(bool bSendLen, MessageSocket& rMsgSock) {
        return nWriteAll(bSendLen ? frame() : bareImage(), rMsgSock);
    }

    /// Gathers several messages and writes them in one go. Oversize messages are left out.
    template <class MessageSocket>
    static int Send(NetMessage** messages, int count, bool bSendLen, MessageSocket& rMsgSock) {
        std::string sOut;
        for (int i = 0; i < count; ++i) {
            messages[i]->GetSendBuffer(bSendLen, sOut);
        }
        return nWriteAll(sOut, rMsgSock);
    }

    /// Dumps the image: every byte (`nField` 0), those below 0x80 (1) or the others (2); as [hex]
    /// with `bHex`, otherwise as characters of seven bits with ^A..^Z for control codes.
    void Print(std::ostream& osrStream, int nField, bool bHex) const;

    // The payload's protection. The header stays in clear, so that the message can still be routed.

    /// Encrypts the payload in place. False, after the line "RSA encryption failed" and with the
    /// message unchanged, if the encrypter fails or its result does not fit a payload. The
    /// encrypter may write up to 2048 bytes. Send at once: packing again would put the clear text
    /// back.
    [[nodiscard]] bool RSAEncrypt(RSAEncrypter* pEncrypter);
    /// Decrypts the payload in place and unpacks the fields. False for an empty payload, or, after
    /// the line "RSA decryption failed" and with the message unchanged, if the decrypter fails.
    [[nodiscard]] bool RSADecrypt(RSADecrypter* pDecrypter);

  protected:
    /// Writes the fields into the payload area from index 0, calls `UpdateLength` and stores the
    /// payload's length through `npMsgHdrLen` if given. Leaves the header alone.
    virtual void doPack(int* npMsgHdrLen);
    /// Reads the fields from the payload.
    virtual void doUnpack();

    /// The payload area: 499 bytes to write, and the pad behind them.
    [[nodiscard]] char* payload() { return image() + nMSG_HDR_LEN; }
    [[nodiscard]] const char* payload() const { return image() + nMSG_HDR_LEN; }

  private:
    [[nodiscard]] char* image() { return achFrame.data() + 1; }
    [[nodiscard]] const char* image() const { return achFrame.data() + 1; }
    void assignImage(const char* buf, int len);
    void copyFrom(const NetMessage& rOther);
    void replacePayload(const unsigned char* data, int nPayloadLen);
    /// True if the image may be sent at all: up to 508 bytes, or 509 with a pad at the end.
    [[nodiscard]] bool bFitsFrame() const;
    /// The image's length where no pad beyond 508 bytes is wanted; 0 for an oversize image.
    [[nodiscard]] int nBareLen() const;
    /// Packs if needed; the image without its envelope, empty when oversize.
    [[nodiscard]] std::string_view bareImage();
    int writeDatagram(unsigned nSender, char* chpOut) const;

    template <class MessageSocket>
    static int nWriteAll(std::string_view svData, MessageSocket& rMsgSock) {
        if (svData.empty()) {
            return 0;
        }
        const int nSize = static_cast<int>(svData.size());
        const int nWritten = rMsgSock.write_n_with_timeout(
            rMsgSock.getMsgSockFileDesc(), svData.data(), nSize, 0, nSEND_TIMEOUT_MICROSECS);
        return nWritten == nSize ? nWritten : -1;
    }

    NetMessageType nmtNetMsgType;
    unsigned nDestID = 0;
    // The length byte and the image lie in one array, so that a frame is written without a copy.
    // Only the bytes in use (at least the header) are initialised.
    std::array<char, 1 + nMAX_PADDED_MSG_LEN> achFrame;
    int nMsgLen = nMSG_HDR_LEN;
    bool bInSync = false;
    bool bOversize = false;
};

}  // namespace Orvex
