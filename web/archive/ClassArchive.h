// When a request may have the Java VM's class archive. One that does not fit costs more than it
// saves, and the VM does not say so: it is found out before the VM is told of it, by a record of
// what the archive was made with. One folder holds the archive, the VM's options with it, and the
// record.
//
// In C, but for the names, for the gate in front of the programs, which loads no library.
#pragma once

constexpr char CLASS_ARCHIVE[] = "classes.jsa";
constexpr char CLASS_ARCHIVE_OPTIONS[] = "java.options";
constexpr char CLASS_ARCHIVE_RECORD[] = "record";

// Whether the folder's archive fits: JAVA_OPTIONS and LD_LIBRARY_PATH are what they were when it
// was made, and each recorded file is there, readable, with its size, its time and its inode. A
// record that is missing, torn or of another form fits nothing. Reads the record, looks at the
// files, logs nothing. `misfit`, unless null, becomes what does not fit: a text of ours or of the
// last call's buffer.
bool ClassArchiveFits(const char* folder, const char** misfit = nullptr);

// Makes JAVA_OPTIONS name the options with the archive if it fits; else changes nothing. Whether it
// did.
bool UseClassArchive(const char* folder);

// Writes the record of these files, whose paths are absolute, and of the two variables; safe on
// disk when it returns. A record that cannot be written: false, and errno says why; no record is
// left.
bool RecordClassArchive(const char* folder, const char* const* files, int count);
