// SPDX-License-Identifier: Apache-2.0
// Numbers in text, read the same in every locale that the encoder may have chosen: one number of a short text, and all
// numbers of a file.
//
// Any thread. The only state is the "C" locale, made once and never freed. Nothing is logged.
#ifndef MD_NUMBER_READER_H
#define MD_NUMBER_READER_H

#include <stddef.h>
#include <stdio.h>

// Returns the number, as atof does: 0 for text that is not a number.
double _TextToDouble(const char* text);
// Stores the same number quickly if the text, which is part of a terminated one, is nothing but an optional minus sign
// and up to 15 digits, with or without a point. Returns false for other text.
bool _ReadDecimal(const char* text, size_t length, double* value);

// Reads the numbers of a file as a loop of "%f" scans would: those in the usual form quickly, from large blocks, and
// those in every other form by that very scan.
class MdNumberReader {
 private:
  static constexpr size_t kBlockSize = 65536;
  static constexpr size_t kMargin = 8;  // zeros in front of the block, which the fast conversion may read

 public:
  static constexpr size_t kMemorySize = kMargin + kBlockSize;

  // The memory has kMemorySize bytes; file and memory belong to the caller and outlive the reader. The file's position
  // means nothing while there is a reader.
  MdNumberReader(FILE* file, char* memory);
  MdNumberReader(const MdNumberReader&) = delete;
  MdNumberReader& operator=(const MdNumberReader&) = delete;

  // Reads up to 'most' numbers. Returns how many values they filled. Text that is not a number counts as a value, which
  // is not changed; a scan does not skip such text, so that no further value is changed either. Returns 0 only if the
  // file ended before a number, or if 'most' is 0.
  int Read(float* values, int most);
  // Returns whether a scan reached the end of the file, before a number or inside one.
  bool IsAtEnd() const { return m_atEnd; }

 private:
  bool HasLookAhead();
  int ReadUsual(float* values, int most);
  int Scan(float* values, int most);
  bool SeekBy(long offset) { return fseek(m_file, offset, SEEK_CUR) == 0; }
  bool GiveBack();
  void Refill();

  FILE* const m_file;
  char* const m_block;
  const char* m_next;  // the block's unread text lies between here and m_end; the file's position is behind it
  const char* m_end;
  const bool m_seekable;     // any other file (a pipe) is only scanned, because it cannot be positioned back
  bool m_fileEnded = false;  // the block holds the rest of the file
  bool m_atEnd = false;
};

#endif  // MD_NUMBER_READER_H
