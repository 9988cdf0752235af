// Decides whether the Java VM's CDS archive (class data sharing) is still valid. The VM ignores a
// stale archive silently, and then takes longer than without one. So a record keeps what the
// archive was made with, and a request passes the archive to the VM only while the record matches.
// One folder holds the archive, the VM's options that name it, and the record.
//
// No C++ runtime: the gate, which has to start fast, uses it too.
#pragma once

constexpr char CLASS_ARCHIVE[] = "classes.jsa";
constexpr char CLASS_ARCHIVE_OPTIONS[] = "java.options";
constexpr char CLASS_ARCHIVE_RECORD[] = "record";

// True: the folder's archive is valid. JAVA_OPTIONS and LD_LIBRARY_PATH are what they were when it
// was made, and each recorded file is readable and has its size, time stamp and inode. A missing,
// incomplete or malformed record matches nothing. Reads the record, checks the files, logs nothing.
// `mismatch`, unless null, becomes the first mismatch: static storage, valid until the next call.
bool ClassArchiveFits(const char* folder, const char** mismatch = nullptr);

// If the archive is valid, sets JAVA_OPTIONS to the options that name it, and returns true. Else
// changes nothing.
bool UseClassArchive(const char* folder);

// Writes the record of these files, whose paths are absolute, and of the two variables. On return
// it is safe on disk. False: it could not be written, errno says why, and no record is left.
bool RecordClassArchive(const char* folder, const char* const* files, int count);
