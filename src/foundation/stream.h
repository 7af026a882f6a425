// stream.h: PStream, the tagged encoding of a PObject on a Channel, and the wire format
// it speaks. Used on the control socket, the notification socket and for the server's
// requests and replies. Binaries are stretches of files that move between disk and
// socket in chunks, never whole in memory.
//
// Wire format. Numbers are big-endian; a value is one tag byte and a body; nothing
// frames the top value but its own end.
//   0x00 null     one byte 0x00
//   0x01 integer  length byte L (1 below 2^8, 2 below 2^16, 4 below 2^32, else 8 when
//                 sending; 1..8 accepted), then L bytes, most significant first
//   0x10 string   2-byte length N, then N bytes of UTF-8 (a longer text goes out with its
//                 length cut to 16 bits and breaks the stream: callers keep texts short)
//   0x30 binary   8-byte length N, then N raw bytes
//   0x40 end      closes the nearest array or map
//   0x41 array    values, then 0x40
//   0x42 map      pairs of string key (tag 0x10 included) and value, then 0x40; keys in
//                 byte order, one leading underscore stripped on sending
// Example: {"daemon_port": 1025} is 42 10 00 0B "daemon_port" 01 02 04 01 40.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "foundation/channel.h"
#include "foundation/object.h"
#include "foundation/ustring.h"
#include "platform/fs.h"

namespace ptag {
constexpr uint8_t kNull = 0x00;
constexpr uint8_t kInteger = 0x01;
constexpr uint8_t kString = 0x10;
constexpr uint8_t kBinary = 0x30;
constexpr uint8_t kEnd = 0x40;
constexpr uint8_t kArray = 0x41;
constexpr uint8_t kMap = 0x42;
}  // namespace ptag

// Results of Send and Recv: 0, or a negative ERR_ code. -2 (channel failure, whatever the
// channel said), -5 (malformed input: unknown tag, non-string key, null body not 0,
// integer length above 8, nesting deeper than kMaxDepth, a binary file of the wrong
// length), -1 (a binary's file can't be opened, sought, read or written, or a kind that
// can't be sent), -4 (no space left while receiving a binary). After any failure the
// stream position is undefined and the connection must be closed.
//
// One PStream serves one thread at a time; GetStatus may be called from another thread
// while a transfer runs.
class PStream {
  public:
    // Size of the buffer that moves a binary; equals the channel capacity so that one
    // chunk fits one Write.
    static constexpr size_t kChunk = 81920;
    // Deeper nesting is refused, so a hostile frame can't exhaust the stack.
    static constexpr int kMaxDepth = 256;

    PStream() = default;
    PStream(const PStream&) = delete;
    PStream& operator=(const PStream&) = delete;

    // Writes the value, then flushes the channel.
    int Send(Channel& ch, const PObject& obj);
    // Reads one value into `obj`. A target that already holds the kind that arrives is
    // reused: a map keeps its members and a prepared binary (path, offset, length) at a
    // key receives the incoming bytes into that file. On failure `obj` holds whatever
    // had arrived.
    int Recv(Channel& ch, PObject& obj);

    // The recursive parts, without flushing, history dump or reset.
    int SendObject(Channel& ch, const PObject& obj);
    int RecvObject(Channel& ch, PObject& obj);
    int RecvDispatch(Channel& ch, uint8_t tag, PObject& obj);
    int RecvTag(Channel& ch, uint8_t& tag);
    int SendNull(Channel& ch);
    int Send(Channel& ch, uint64_t value);
    int Send(Channel& ch, const ustring& text);
    int Send(Channel& ch, const PObject::array_type& array);
    int Send(Channel& ch, const PObject::map_type& map);
    // Streams `length` bytes of the file from `offset`. -1 when the file can't be opened,
    // sought or read, -2 on a channel failure, -5 when the file ends early. The tag and
    // length are queued before the file is opened, so any failure breaks the stream.
    int Send(Channel& ch, const PObject::binary_type& binary);
    int Recv(Channel& ch, uint64_t& value);
    int Recv(Channel& ch, ustring& text);
    int Recv(Channel& ch, PObject::array_type& array);
    int Recv(Channel& ch, PObject::map_type& map);
    // Receives into `binary.path`; when it is empty, into a fresh random name in the
    // receive directory (-1 when none is set). offset 0 writes the file anew; any other
    // offset resumes: the existing file is cut back to offset (-1 when it is missing or
    // shorter) and the bytes are appended. Afterwards, also after a failure, offset and
    // length both say how many bytes stand in the file correctly.
    int Recv(Channel& ch, PObject::binary_type& binary);

    // The directory for received binaries that name no file.
    void SetDefaultRecvLocation(const ustring& path);

    // The key path of the value under way joined by ".", and the progress of the
    // binary under way. Safe from another thread.
    void GetStatus(ustring& path, uint64_t& sent, uint64_t& total);
    void UpdateStatus(uint64_t sent, uint64_t total);
    ustring GetHistory();
    // Empties the history and both totals.
    void ClearHistory();
    // Logs the key path at error level.
    void DumpHistory();
    // Skipping a value is not offered: always -5.
    int Skip(Channel& ch, uint8_t tag);

  private:
    int RecvObjectAt(Channel& ch, PObject& obj, int depth);
    int RecvDispatchAt(Channel& ch, uint8_t tag, PObject& obj, int depth);
    int RecvArray(Channel& ch, PObject::array_type& array, int depth);
    int RecvMap(Channel& ch, PObject::map_type& map, int depth);
    int ReceiveFileBody(Channel& ch, const PObject::binary_type& binary, uint64_t incoming,
                        uint64_t& received);
    void PushKey(const ustring& key);
    void PopKey();
    // Two blanks per level, at most 11 levels, for the debug text.
    const char* Indent() const;

    std::vector<ustring> history;
    uint64_t total_size = 0;
    uint64_t total_sent = 0;
    std::mutex status_lock;
    size_t indent = 0;
    ustring recv_path;
};

// Opens a file of the installed file system for a stream of bytes, closed to child
// processes, with a hint of sequential access. The mode's first letter decides: "a" append
// (create if missing), "r" read an existing file, "w" create or replace for writing,
// anything else create or replace for reading and writing. Null on failure (logged). The
// caller owns the file.
std::unique_ptr<platform::File> xfopen(const ustring& path, const char* mode);
