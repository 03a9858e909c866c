// File functions of the C library that fail on demand, for programs that wrap them.
#ifndef TAVOR_TESTS_HDL_FILE_FAULTS_H
#define TAVOR_TESTS_HDL_FILE_FAULTS_H

struct HdlFileFaults {
    bool fseeko = false;
    bool fwrite = false;
    bool fclose = false; // the file is closed all the same
    bool remove = false;
};

extern HdlFileFaults g_file_faults;

#endif
