// Debug log: KSDebugLog writes time-stamped, thread-tagged records to a file
// of its own in the temporary directory ($TMPDIR, default /tmp). Each record
// reads "<seconds since 1970> (thread: <id>) <text>"; the file begins with a
// banner. The object is not synchronised: serialise writes from several
// threads yourself (for example with a KSCriticalSection).
#include <kestrel/kestrel.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>

int main() {
    std::string fileName;
    try {
        // Prefix "example-"; unbuffered, so that each record is in the file
        // as soon as writeString() returns.
        kestrel::KSDebugLog log("example-", /*buffered=*/false);
        fileName = log.getFileName();
        log.writeString("%d apples and %s", 3, "a pear");
        log.writeString("about to close %s", fileName.c_str());
    } catch (const kestrel::KSException& e) {  // the file could not be created
        std::fprintf(stderr, "%s: %s\n", e.getID(), e.getMessage());
        return 1;
    }  // the destructor closes the file

    std::printf("debug file %s:\n", fileName.c_str());
    std::ifstream file(fileName);
    std::string line;
    int records = 0;
    while (std::getline(file, line)) {
        if (!line.empty()) {
            std::cout << "  " << line << '\n';
            ++records;
        }
    }
    file.close();
    std::remove(fileName.c_str());  // the file is the caller's to keep or delete
    return records == 3 ? 0 : 1;    // the banner and two records
}
