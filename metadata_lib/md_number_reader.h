// Numbers in text, read the same in every locale that the encoder may have chosen: one number of a short text, and all
// numbers of a file.
//
// Any thread. The only state is the "C" locale, made once and never freed. Nothing is logged.
#ifndef MD_NUMBER_READER_H
#define MD_NUMBER_READER_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

// Like atof: text that is no number is 0.
double _TextToDouble(const char* text);

// Reads the numbers of a file as a loop of "%f" scans would: those in the usual form quickly, from large blocks, and
// those in every other form by that very scan.
class MdNumberReader {
 private:
  static constexpr size_t kBlockSize = 65536;
  static constexpr size_t kMargin = 8;  // zeros in front of the block, which the fast way may look at

 public:
  static constexpr size_t kMemorySize = kMargin + kBlockSize;

  // The memory has kMemorySize bytes; file and memory belong to the caller and outlive the reader. The file's position
  // means nothing while there is a reader.
  MdNumberReader(FILE* file, char* memory);
  MdNumberReader(const MdNumberReader&) = delete;
  MdNumberReader& operator=(const MdNumberReader&) = delete;

  // Reads some numbers, at most 'most', and returns how many values they took. Text that is not a number takes a value
  // too and leaves it as it is. What a scan cannot get past is not skipped, so that all further values are left as
  // they are. Returns 0 only if the end was met before a number, or if nothing was asked for.
  int Read(float* values, int most);
  // Whether a scan met the end of the file, in front of a number or inside one.
  bool IsAtEnd() const { return m_atEnd; }

 private:
  int ReadUsual(float* values, int most);
  int Scan(float* values, int most);
  bool SeekBy(long offset) { return fseek(m_file, offset, SEEK_CUR) == 0; }
  bool GiveBack();
  void Refill();

  FILE* const m_file;
  char* const m_block;
  const char* m_next;  // from here to m_end the block holds what is not read yet; the file stands behind it
  const char* m_end;
  const bool m_seekable;     // a file that is not (a pipe) is only scanned: nothing could be given back
  bool m_fileEnded = false;  // the block holds all that is left
  bool m_atEnd = false;
};

#endif  // MD_NUMBER_READER_H
