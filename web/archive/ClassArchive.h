// Finds out whether the Java VM's CDS archive (class data sharing) is stale. The VM ignores a stale
// archive without a word, and the JDK's own archive as well: it then starts in more than twice the
// CPU time. So a record keeps what the archive was made with. The archive is stale when anything
// differs from its record now; else it fits. A request gives the VM no stale archive.
// One folder holds the archive, the VM's options that name it, and the record.
//
// No C++ runtime: the gate, which has to start fast, uses it too.
#pragma once

constexpr char CLASS_ARCHIVE[] = "classes.jsa";
constexpr char CLASS_ARCHIVE_OPTIONS[] = "java.options";
constexpr char CLASS_ARCHIVE_RECORD[] = "record";

// True: the folder's archive fits. JAVA_OPTIONS and LD_LIBRARY_PATH are what they were when it was
// made, and each recorded file is readable and has its size, time stamp and inode. With a missing,
// incomplete or malformed record no archive fits. Reads the record, checks the files, logs nothing.
// `mismatch`, unless null, becomes the first mismatch: static storage, valid until the next call.
// Called by UseClassArchive, and by `class-archive fits` for make-class-archive and vemo-web-check.
bool ClassArchiveFits(const char* folder, const char** mismatch = nullptr);

// If the archive fits, sets JAVA_OPTIONS to the options that name it, and returns true. Else
// changes nothing. Called by the gate before each program, and by `class-archive run`.
bool UseClassArchive(const char* folder);

// Writes the record of these files, whose paths are absolute, and of the two variables. On return
// it is safe on disk. False: it could not be written, errno says why, and no record is left. Called
// by `class-archive record`, for make-class-archive.
bool RecordClassArchive(const char* folder, const char* const* files, int count);
