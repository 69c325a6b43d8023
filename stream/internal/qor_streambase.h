// Internal: what the reader's and the writer's units share: the unit name of
// their messages and the step that opens a file for either class.
#ifndef QOR_STREAMBASE_H
#define QOR_STREAMBASE_H

#include <qor/qor_assert.h>
#include <qor/qor_strings.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>

namespace qor_internal {

// Every stream unit raises under this one name: the messages say
// "[file qor_stream line N]" whichever unit raised them.
const char kStreamUnit[] = "qor_stream";
const char kBufferIsNull[] = "Buffer is null!";

// errno of a failed file operation; EIO where the C library left none.
inline int ioErrno() { return errno != 0 ? errno : EIO; }

// The stream's side record (its state beyond the public fields) lives right
// after the data buffer, in the same allocation, so that it exists in every
// state of the stream and the records keep their layout. The buffer sizes
// are multiples of 16, which keeps it aligned.
template <typename Side>
Side* sideAfter(char* buf, int bufSize) {
  return std::launder(reinterpret_cast<Side*>(buf + bufSize));
}

// Sets up the fields both streams share and opens the file: name copy, data
// buffer with the side record after it, no codec yet, nothing counted. A
// failed open, or a directory where a reader expects a file (fopen takes it
// and the first read fails, which would read as an empty file), raises
// "<failure><name>\n" and leaves nothing allocated.
template <typename Side, typename Stream>
void openStream(Stream& s, char const* fileName, int bufSize, size_t zbufSize, const char* fopenMode,
                const char* failure) {
  static_assert(alignof(Side) <= 16, "the side record must stay aligned after the buffer");
  if (fileName == nullptr) qorThrow("Filename is null!", kStreamUnit, __LINE__);
  std::unique_ptr<char[]> name(qorStrdup(fileName));
  std::unique_ptr<char[]> buf(new char[static_cast<size_t>(bufSize) + sizeof(Side)]);
  FILE* file = fopen(name.get(), fopenMode);
  if (file == nullptr) qorThrowComposed(failure, name.get(), kStreamUnit, __LINE__);
  struct stat st;
  if (fstat(fileno(file), &st) == 0 && S_ISDIR(st.st_mode)) {
    fclose(file);
    qorThrowComposed(failure, name.get(), kStreamUnit, __LINE__);
  }
  new (buf.get() + bufSize) Side();
  s.m_FileBytes = 0;
  s.m_FileName = name.release();
  s.m_FileHandle = file;
  s.m_Buf = buf.release();
  s.m_BufSize = bufSize;
  s.m_Compressed = false;
  s.m_ZBuf = nullptr;
  s.m_ZBufSize = zbufSize;
  s.m_ZStream = nullptr;
}

// Releases what openStream() set up but the file: the side record, the
// buffer and the name.
template <typename Side, typename Stream>
void releaseStream(Stream& s, int bufSize) {
  sideAfter<Side>(s.m_Buf, bufSize)->~Side();
  delete[] s.m_Buf;
  delete[] s.m_FileName;
}

}  // namespace qor_internal

#endif
