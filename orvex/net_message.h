/// The base of every protocol message: one image in wire form, its header, its fields and its
/// envelopes.
///
/// Message image (numbers of the header are raw 32-bit values in host order, little-endian on
/// x86-64):
///   0  u8    type; 255 reads back as unset (-1)
///   1  u32   sender id
///   5  u32   destination id, 0 when not addressed
///   9  text  0..499 payload bytes: fields, each with backslash, '~' and NUL escaped by a backslash
///            and ended by one '~'
///
/// Stream frame:
///   0  u8         L, 1..255
///   1  2*L - 1    the image; an image of even length is padded with one '~'
///
/// Datagram, at most 524 bytes:
///   0  12 zero bytes   12  u32 sender id   16  the image
///
/// The largest image has 508 bytes, 509 with its pad. Hence an image of 509 bytes is valid if it
/// ends in '~'; any other image above 508 bytes is oversize: as much as fits is kept for reading,
/// and it is never sent. Each message is for one thread at a time.
#pragma once

#include <netinet/in.h>

#include <array>
#include <iosfwd>
#include <string>
#include <string_view>

#include "orvex/message_codes.h"

/// The relay's own client id, 0 until the connection server has assigned one. Written into the
/// header of every message when it is constructed. Set by the connection-server link; main thread
/// only.
extern unsigned nSenderID;

/// Takes the id that the connection server has assigned to this relay.
void assignSenderID(unsigned nID);

/// The sender id in a raw image of `nInMsgLen` bytes; all bits set (-1) when there is no image or
/// it has fewer than 9 bytes. Any thread.
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
    /// The largest image with its pad, as a stream frame carries it: the room that `ToChars` may
    /// need.
    static constexpr int nMAX_PADDED_MSG_LEN = nMAX_MSG_LEN + 1;
    /// The time-out of each wait for room while a message is written.
    static constexpr int nSEND_TIMEOUT_MICROSECS = 1000;

    /// A header without type, not in sync.
    NetMessage();
    /// A header of `type`, in sync.
    explicit NetMessage(long type);
    /// With `bCreate` a header of `type`, not in sync; otherwise a received image, whose first byte
    /// then gives the type.
    NetMessage(bool bCreate, long type, const char* buf, int len);
    /// A received image of `len` bytes, in sync. A negative length counts as 0, and no more than
    /// 509 bytes are kept.
    NetMessage(const char* buf, int len);

    /// Copies the image, its marks and the header's values.
    NetMessage(const NetMessage& rOther);
    NetMessage& operator=(const NetMessage& rOther);
    virtual ~NetMessage() = default;

    // Header and ids. Header bytes missing from a short image read as zero.

    /// Writes type, `nSenderID` and the destination into the header; stores 9 through
    /// `npMsgHdrLen`, which may be null.
    void basePack(int* npMsgHdrLen);
    /// Takes type and destination from the header.
    void baseUnpack();
    /// The type in byte 0 of the image, -1 for an unset one; stored, or returned.
    void GetNetMsgType(NetMessageType& nmtrOutType) const;
    [[nodiscard]] NetMessageType GetNetMsgType() const;
    /// The sender id in the image; stored, or returned.
    void GetSenderID(unsigned& nrOutSenderID) const;
    [[nodiscard]] unsigned GetSenderID() const;
    /// Overwrites the sender id in the image; fields and sync mark stay as they are.
    void ChangeSenderID(unsigned nNewSenderID);
    /// The destination id in the image, 0 when not addressed; stored, or returned.
    void GetDestID(unsigned& nrOutDestID) const;
    [[nodiscard]] unsigned GetDestID() const;
    /// Sets the destination id, in the image as well; fields and sync mark stay as they are.
    void SetDestID(unsigned nNewDestID);

    /// Bytes of the image, 0..509, including the pad of a framed or received one.
    [[nodiscard]] int GetMessageLen() const { return nMsgLen; }
    /// `GetMessageLen()` minus the header; negative for an image shorter than the header.
    [[nodiscard]] int GetPayloadLen() const { return nMsgLen - nMSG_HDR_LEN; }
    /// Sets and returns the image's length after `nPayloadLen` payload bytes have been written. A
    /// negative count is taken as 0, and one beyond the array makes the message oversize.
    int UpdateLength(int nPayloadLen);

    // Packing and sync. In sync means that the image reflects the fields.

    /// Writes the fields into the payload and marks the message as in sync; stores the payload's
    /// length through `npMsgHdrLen`, which may be null.
    void Pack(int* npMsgHdrLen);
    /// Reads header and fields from the image and marks the message as in sync.
    void Unpack();
    [[nodiscard]] bool isInSync() const { return bInSync; }
    void MarkInSync() { bInSync = true; }
    void MarkNotInSync() { bInSync = false; }
    /// Copies the image of `fromMsg` and unpacks it, if the types are equal or this message has
    /// none. Otherwise returns false and changes nothing.
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
    /// Puts a backslash before each backslash, '~' and NUL.
    static void AddEscapes(std::string& srInString);
    /// Removes the backslash of each pair, and one at the end.
    static void DeleteEscapes(std::string& srInString);

    // Output. Only the stream forms (frame, GetSendBuffer, Send) pack a message that is not in
    // sync.

    /// Copies the image and stores its length; both pointers may be null. `chpOutNetMsg` needs room
    /// for nMAX_PADDED_MSG_LEN bytes.
    void ToChars(char* chpOutNetMsg, int* npOutNetMsgLen) const;
    /// The stream frame as a view of this object, valid until the message is changed; empty when
    /// the message is oversize. A pad becomes part of the image, so that further calls give the
    /// same bytes.
    [[nodiscard]] std::string_view frame();
    /// Appends the stream frame to `out`, or the bare image (without a pad beyond 508 bytes) when
    /// `bSendLen` is false. An oversize message appends nothing.
    void GetSendBuffer(bool bSendLen, std::string& out);
    /// Writes the datagram with this process's `nSenderID` to `out`. `outlen` gives the capacity of
    /// `out` and receives the length, which is also returned: 0, with nothing written, if the
    /// capacity is below nMAX_UDP_MSG_LEN or the message is oversize.
    int GetUdpSendToBuffer(char* out, int* outlen) const;
    /// Writes the datagram with the message's own sender id; both pointers may be null, and
    /// `chpOutNetMsg` needs room for nMAX_UDP_MSG_LEN bytes. The length is 0 for an oversize
    /// message.
    void ToRTPFormatChars(char* chpOutNetMsg, int* npOutNetMsgLen) const;
    /// Sends the datagram of `ToRTPFormatChars` and returns the result of `sendto`; -1 with
    /// EMSGSIZE for an oversize message.
    int SendTo(int nUdpSock, sockaddr_in sipTo) const;

    /// Writes the message, framed if `bSendLen`, in one call. Returns the bytes written, 0 for an
    /// oversize message, for which the socket is not touched, or -1 if not everything was written.
    /// The frame is written from this object, without a copy. `MessageSocket` is RelayMessageSocket
    /// or a substitute with the two members used here.
    template <class MessageSocket>
    int Send(bool bSendLen, MessageSocket& rMsgSock) {
        return nWriteAll(bSendLen ? frame() : bareImage(), rMsgSock);
    }

    /// The same for `count` messages in one call. Oversize messages are left out.
    template <class MessageSocket>
    static int Send(NetMessage** messages, int count, bool bSendLen, MessageSocket& rMsgSock) {
        std::string sOut;
        for (int i = 0; i < count; ++i) {
            messages[i]->GetSendBuffer(bSendLen, sOut);
        }
        return nWriteAll(sOut, rMsgSock);
    }

    /// Dumps the image: all bytes (`nField` 0), those below 0x80 (1) or the others (2), none for
    /// any other `nField`; as [hex] with `bHex`, otherwise as seven-bit characters with ^A..^Z for
    /// control codes.
    void Print(std::ostream& osrStream, int nField, bool bHex) const;

    // Encryption of the payload. The header stays in clear, so that the message can be routed.

    /// Encrypts the payload in place. If the encrypter fails or its result does not fit in a
    /// payload, prints "RSA encryption failed" on standard output, leaves the message unchanged and
    /// returns false. The encrypter may write up to 2048 bytes. Send the message without changing
    /// it again: packing would restore the clear text.
    [[nodiscard]] bool RSAEncrypt(RSAEncrypter* pEncrypter);
    /// Decrypts the payload in place and unpacks the fields. Returns false for an empty payload;
    /// also if the decrypter fails, after printing "RSA decryption failed" on standard output. The
    /// message is unchanged then.
    [[nodiscard]] bool RSADecrypt(RSADecrypter* pDecrypter);

  protected:
    /// Writes the fields into the payload area from index 0, calls `UpdateLength` and stores the
    /// payload's length through `npMsgHdrLen`, which may be null. Does not change the header.
    virtual void doPack(int* npMsgHdrLen);
    /// Reads the fields from the payload.
    virtual void doUnpack();

    /// The payload area: 499 bytes to write, followed by room for the pad.
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
    /// The image's length without a pad beyond 508 bytes; 0 for an oversize image.
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
    // The length byte and the image share one array, so that a frame is written without a copy.
    // Only the bytes in use, at least the header, are initialised.
    std::array<char, 1 + nMAX_PADDED_MSG_LEN> achFrame;
    int nMsgLen = nMSG_HDR_LEN;
    bool bInSync = false;
    bool bOversize = false;
};

}  // namespace Orvex
