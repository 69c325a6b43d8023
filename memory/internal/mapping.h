// Internal: the one place where the allocators map and unmap memory.
#ifndef QOR_INTERNAL_MAPPING_H
#define QOR_INTERNAL_MAPPING_H

#include <memory>

namespace qor_internal {

// `length` bytes of fresh anonymous private read-write memory. A failed
// mmap raises "<owner>: mmap failed: <strerror>" with the caller's unit and line;
// nothing is mapped then. Builds without NDEBUG fill the memory with 0xA5
// bytes, so that code relying on fresh memory reading as zero fails there.
void* mapAnonymous(unsigned long length, const char* owner, const char* unit, unsigned long line);

// Unmaps a mapping given back in bulk, and forgets what AddressSanitizer was
// told about it. A failing munmap cannot be recovered from: it prints
// "Error in munmap: size = <length> addr=<hex address>" on standard output
// and ends the process with munmap's result.
void unmapOrExit(void* address, unsigned long length);

// Maps `length` bytes and puts a record {address, next, length} of the
// mapping at the head of the list `head`. The record is made first, so that
// a failure (of new or of mmap) leaves neither a mapping without a record
// nor a record of a failed mapping.
template <typename Record>
void* mapAndRecord(Record*& head, unsigned long length, const char* owner, const char* unit, unsigned long line) {
  std::unique_ptr<Record> record(new Record{});
  record->address = mapAnonymous(length, owner, unit, line);
  record->next = head;
  record->length = length;
  head = record.release();
  return head->address;
}

// Unmaps every mapping of the list from the head (newest first) through
// unmapOrExit, deletes the records and empties the list.
template <typename Record>
void unmapAll(Record*& head) {
  while (head != nullptr) {
    unmapOrExit(head->address, head->length);
    Record* next = head->next;
    delete head;
    head = next;
  }
}

}  // namespace qor_internal

#endif
