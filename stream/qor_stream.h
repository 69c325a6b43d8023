// Buffered file streams: plain bytes, one gzip member, or a raw deflate stream.
//
// qorStreamReader reads a file from start to end through a 64 KiB buffer;
// qorStreamWriter writes one through a 16 KiB buffer. Both report every
// failure by raising a qorException* (catch the pointer, call what() once,
// delete it).
//
// File formats:
//   plain        the bytes as they are (the default);
//   gzip         one gzip member (zlib window bits 31), or every member with
//                readAllMembers(true); gunzip(true) / gzip(true);
//   raw deflate  a bare deflate stream, 32 KiB window, no header or trailer
//                (zlib window bits -15); inflate(true) / deflate(true).
// Text conventions of the readers: a line ends at a line feed, which is not
// delivered; carriage returns are dropped; a tab is delivered as it is or as
// four spaces. A binary number is an 8-byte IEEE-754 double in host order.
#ifndef QOR_STREAM_H
#define QOR_STREAM_H

#include <QString>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

#include "qor_export.h"

// zlib's stream record; <zlib.h> declares it in full.
typedef struct z_stream_s z_stream;

class QOR_API qorStreamReader {
 public:
  // Opens the file with fopen(name, "rb"); no data is read yet. A null name
  // raises "Filename is null!"; a file that cannot be opened, or a directory,
  // raises "Unable to open file for read: <name>\n". A failed constructor
  // leaves nothing allocated.
  explicit qorStreamReader(char const* fileName);
  // Closes the file and releases the buffers and the decompressor.
  ~qorStreamReader();

  qorStreamReader(const qorStreamReader&) = delete;
  qorStreamReader& operator=(const qorStreamReader&) = delete;

  // Size of the file in bytes (the compressed size of a compressed file),
  // independent of the reading position. Raises "fstat failed: <reason>\n"
  // when the size cannot be read.
  long size();

  // true: from the next fill on, decode the file as one gzip member (bytes
  // after the member are delivered only with readAllMembers(true)); false:
  // read plain bytes again. Call it right after construction (after peek(),
  // if used): bytes already buffered are delivered as they are. Switching on
  // while decoding in the same format keeps the running decoder; in the other
  // format the old decoder is ended and a new one starts at the current file
  // position. Raises "Error initialising zlib" when zlib cannot start.
  void gunzip(bool on);
  // The same as gunzip(), for a raw deflate stream.
  void inflate(bool on);

  // Moves back to the start of the file and discards the buffered bytes and
  // any peeked ones. A running decoder restarts too, so the next read
  // delivers the data from its start in every format. Returns 0. Input that
  // cannot seek (a pipe, a FIFO, a terminal) cannot start again: rewind()
  // then raises "qorStreamReader: cannot rewind <name>: <reason>\n" and
  // leaves the reader as it was.
  int rewind();

  // Refills the buffer; the readers call it when the buffer is used up.
  // m_BufSize becomes 0 when the data has ended. While decoding, a corrupt
  // stream raises zlib's message, and a file that ends inside the stream
  // raises "Unexpected end of compressed data in <name>\n", leaving the
  // buffer empty. A failed read of the file (an I/O error) ends the data as
  // the end of the file would; see failed() and checkRead().
  void fillBuf();

  // Copies the next n bytes into buf and returns how many were copied: n,
  // fewer only at the end of the data, 0 when n <= 0. A null buf with n > 0
  // raises "Buffer is null!". Trailing garbage after gzip members (see
  // readAllMembers()) met after some bytes of the call were copied loses
  // none of them: the call returns what it copied, and the next reading call
  // raises. Every other error raises at once.
  long read(char* buf, int n);
  // Copies bytes into buf up to a zero byte (consumed, not copied), n bytes or
  // the end of the data, and returns the count. No terminator is written.
  // A null buf with n > 0 raises "Buffer is null!". Trailing garbage after
  // copied bytes raises at the next call, as in read().
  long readString(char* buf, int n);

  // The next line (line feed removed, carriage returns dropped, each tab as
  // four spaces when expandTabs) in a buffer of the calling thread, shared by
  // every reader the thread uses: valid until the thread's next call of
  // readLine(bool) on any reader, or its end. The 64 KiB buffer is made on a
  // thread's first call and released when the thread ends, so two threads
  // with two readers never see each other's lines (finding the thread's buffer
  // costs about half a nanosecond a line more than one buffer for the whole
  // process did). Returns null at the end of the data; an unterminated last
  // line is not delivered. A line of 65535 bytes
  // or more, or one whose expanded tabs do not fit 65535 bytes, raises
  // "line > 64k chars in qorStreamReader::readLine" after consuming the bytes
  // read so far.
  char* readLine(bool expandTabs);
  // The next line into s (emptied first); each byte becomes one UTF-16 code
  // unit, taken as a signed byte (0x80..0xFF give U+FF80..U+FFFF). Returns
  // false at the end of the data, with an unterminated last line left in s.
  bool readLine(QString& s, bool expandTabs);
  // The same into a standard string, bytes unchanged.
  bool readLine(std::string& s, bool expandTabs);
  // The next zero-terminated string into s (emptied first). Carriage returns
  // and line feeds are kept; tabs are expanded when asked. Returns false at
  // the end of the data, with the unterminated rest in s.
  bool readString(QString& s, bool expandTabs);
  // Exactly readLine(s, expandTabs): reads up to a line feed.
  bool readString(std::string& s, bool expandTabs);

  // The next 8 bytes as a double. Returns false, storing nothing, when the
  // data ends first (the remaining bytes are consumed).
  bool readFloat(double& value);
  // Two doubles in a row. Returns false, storing into neither, when the data
  // ends before all 16 bytes.
  bool readComplex(double& re, double& im);

  // The next line as a view into the reader's own storage, valid until the
  // next call on this reader (or its destruction). The line rules are those
  // of readLine(s, false): a line feed ends the line and is not delivered,
  // every carriage return is dropped, tabs and other bytes are unchanged.
  // Returns false at the end of the data, with line holding the unterminated
  // rest (empty when the data ended with a line feed). A line that lies whole
  // in the buffer and holds no carriage return is not copied; one that spans
  // a refill or holds a carriage return is put together in a spill buffer of
  // the reader, which grows as needed and is released with the reader.
  // Errors are those of the other readers, in every format.
  bool readLineView(std::string_view& line);

  // Copies up to n of the next raw bytes of the file (undecoded: a gzip file
  // gives its header) into buf without consuming them, and returns how many:
  // n, or fewer when the file ends first. On a pipe it waits only for those
  // n bytes or the end, never for a whole buffer. Meant for right after
  // construction, to choose a format from the first bytes of input that
  // cannot be read twice (a pipe, /dev/stdin): whatever is switched on
  // afterwards (plain, gunzip(true), inflate(true), with either decoder and
  // with or without readAllMembers) takes the peeked bytes as the first
  // bytes of its input, so nothing is lost. Called again, it gives the same
  // bytes, more of them when n is larger. Called after reads have begun, it
  // gives the bytes after those the reader has already taken from the file
  // into its buffers, which are not the next bytes a read delivers; the data
  // the reads deliver stays the same. rewind() drops the peeked bytes.
  // n <= 0 returns 0; a null buf with n > 0 raises "Buffer is null!"; n above
  // 16384 raises "qorStreamReader::peek: more than 16384 bytes asked". A
  // failed read of the file counts for failed() as in the other readers.
  long peek(char* buf, int n);

  // --- Beside the calls above: errors that must not pass in silence. ---

  // True once a read of the file failed (an I/O error such as EIO): the data
  // then ended early, as if the file had ended there. It stays true for the
  // reader's life, rewind() included.
  bool failed() const;
  // Raises "Read failed for <name>: <reason>\n" (strerror of the first
  // failure) when failed(); otherwise does nothing. The reading calls end the
  // data at a failed read as they end it at the end of the file, so call this
  // after the last read to know that the data was complete.
  void checkRead() const;
  // true: while decoding gzip, go on after the end of a member into the
  // members that follow it, as gzip -dc does (a writer in mode 'a' with gzip
  // on makes such files); the data ends at the end of the file. Zero bytes
  // from the end of a member to the end of the file (the padding of tape
  // blocks and dd) end the data as the end of the file would, as gzip -dc
  // takes them. Any other bytes after a member that do not start another one
  // (the gzip magic 1f 8b), zero bytes followed by anything else among them,
  // raise "qorStreamReader: trailing garbage after gzip member in <name>\n" at
  // the read that reaches them; the members before them are delivered first.
  // false (the default): the data ends with the first member and whatever
  // follows it is never delivered. No effect on plain or raw deflate input.
  // Call it before the read that reaches the end of the first member.
  void readAllMembers(bool on);
  // true: decode gzip members with ISA-L's inflate, which is faster than
  // zlib, where the library was built with ISA-L; without it the call is
  // accepted and zlib decodes. Call it before the first read after
  // gunzip(true), or before it (on plain files it does nothing); switched
  // during a stream, it takes effect at the next member, rewind() or
  // switch-on. Everything else stays as with zlib: the data, the line rules,
  // rewind(), readAllMembers(), failed(), m_FileBytes at the end of the data,
  // the CRC-32 and length check of the gzip trailer, header names, comments
  // and extra fields, and the error messages: where the fast decoder meets a
  // fault or a cut file, the member is decoded again by zlib from its start,
  // which raises what it finds in its own words. zlib decodes by itself what
  // ISA-L would read differently: raw deflate (it carries no check value that
  // would catch ISA-L accepting a damaged Huffman table that zlib refuses)
  // and gzip members whose header has reserved flag bits, a header CRC or a
  // method other than deflate, or does not fit the 16 KiB input buffer.
  // Differences: input that cannot seek cannot be decoded again, so a fault
  // there raises "Corrupt compressed data in <name>\n", and a cut
  // "Unexpected end of compressed data in <name>\n"; the number of bytes a
  // single fill produces may differ from zlib's by a few bytes, so m_BufSize
  // after a given fill is not promised to match.
  void useFastDecoder(bool on);

  size_t m_FileBytes;   // bytes read from the file (compressed bytes while decoding)
  char* m_FileName;     // qorStrdup copy of the name
  FILE* m_FileHandle;   // the file, mode "rb"
  char* m_Buf;          // 65536-byte data buffer (decoded data while decoding)
  int m_BufSize;        // valid bytes in m_Buf; 0 once the data has ended
  int m_BufLeft;        // valid bytes not yet consumed; next is m_Buf[m_BufSize - m_BufLeft]
  bool m_Compressed;    // decoding is on
  char* m_ZBuf;         // 16384-byte input buffer while decoding, otherwise null
  size_t m_ZBufSize;    // 16384
  z_stream* m_ZStream;  // zlib's record while decoding
};

class QOR_API qorStreamWriter {
 public:
  // Opens the file for writing: mode 'a' appends to it ("ab"), any other
  // character creates or truncates it ("wb"). A null name raises
  // "Filename is null!"; a file that cannot be opened raises
  // "Unable to open file for write: <name>\n". A failed constructor leaves
  // nothing allocated.
  qorStreamWriter(char const* fileName, char mode);
  // Writes out the buffered bytes, ends a running compressed stream, closes
  // the file and releases everything; after close() it only releases memory.
  // A destructor cannot raise: an error at this last step is lost, and a
  // full disk is not reported. Call close() to know.
  ~qorStreamWriter();

  qorStreamWriter(const qorStreamWriter&) = delete;
  qorStreamWriter& operator=(const qorStreamWriter&) = delete;

  // true: compress everything written from now on into one gzip member;
  // false: write out the buffered bytes, end the member and write plain bytes
  // again. However the writes are sized, the compressed output is one
  // complete stream, ended exactly once: here or in the destructor.
  // Switching on while compressing in the same format keeps the running
  // stream; in the other format the running stream is ended first. Bytes
  // buffered before switching on are compressed. Raises "Error initialising
  // zlib" when zlib cannot start.
  void gzip(bool on);
  // The same as gzip(), for a raw deflate stream.
  void deflate(bool on);

  // Takes n bytes from buf; returns n, or 0 when n <= 0. A null buf with
  // n > 0 raises "Buffer is null!". A short write to the file (a full disk)
  // is not reported here: see failed() and close().
  long write(char* buf, int n);
  // Writes out the buffered bytes. While compressing, the stream is flushed
  // to a byte boundary (everything so far can be decoded) but not ended.
  // Always returns 0.
  int emptyBuf();
  // Moves back to the start of the file and discards the buffered bytes; a
  // running compressed stream restarts, so the output written after it is
  // one valid stream from the start of the file. The file is not truncated:
  // older bytes beyond the new output stay. Always returns 0.
  int rewind();

  // --- Beside the calls above: errors that must not pass in silence. ---

  // True once a write of the file came back short (a full disk, say) or
  // failed. Sticky: it never becomes false again. Bytes that wait in stdio's
  // buffer fail only at close(), so failed() may be false until then.
  bool failed() const;
  // Writes out the buffered bytes, ends a running compressed stream, flushes
  // and closes the file; raises "Write failed for <name>: <reason>\n"
  // (strerror of the first failure) if any byte was lost at any point, or if
  // the flush or fclose failed. This is how a program knows its data is on
  // disk. A zlib error while ending the stream raises zlib's message, after
  // the file has been closed. After close() the writer is closed, whatever
  // the outcome: write(), emptyBuf(), rewind() and switching compression on
  // raise "qorStreamWriter: the file is closed: <name>\n", a second close()
  // does nothing, and the destructor only releases memory.
  void close();

  size_t m_FileBytes;   // bytes written to the file, as fwrite reports them
  char* m_FileName;     // qorStrdup copy of the name
  FILE* m_FileHandle;   // the file, mode "wb" or "ab"
  char* m_Buf;          // 16384-byte data buffer
  int m_BufSize;        // 16384
  int m_BufUsed;        // buffered bytes not yet written
  bool m_Compressed;    // compression is on
  char* m_ZBuf;         // 65536-byte output buffer while compressing, otherwise null
  size_t m_ZBufSize;    // 65536
  z_stream* m_ZStream;  // zlib's record while compressing
};

#endif
