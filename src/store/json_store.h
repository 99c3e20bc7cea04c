// Replicated JSON documents on this host. Every document lives under the
// JSON tree <work_directory>/v2/ as its text file plus a 146-byte metadata
// file beside it (the jsonEntry image, "<file>.mtd"); the host where a
// document was handed in also lists it in the local-files index
// (<work_directory><local_files>), from which it is re-announced. Every file
// is touched only under its JSON path lock.
//
// path and filename come from control clients, from peers' datagrams and
// from metadata files that other programs can write; every operation refuses
// an entry whose texts are unterminated or would lead out of the JSON tree
// before it makes, writes, locks or removes anything.
#pragma once

#include <sys/stat.h>

#include <ctime>
#include <functional>

#include "net/netlib.h"
#include "store/attr.h"
#include "store/lock.h"

namespace corvald {

enum interactMetadata { SAVE = 0, LOAD = 1 };

// Stores the jsonlen bytes at json as the document path+filename and writes
// its metadata with lastping set to now. 0 or -1.
int json_store_handle_ping(jsonEntry* jsonobj, const char* json);
// Stores the document as above and lists it once in the index; 0 also when
// the index lock could not be taken (stored, not listed); -1 otherwise.
int json_write_local_files(jsonEntry* jsonobj, const char* json);
// Drops the document's index line, removes the document and its metadata
// file (only path and filename are used). 0, or the code (-1 .. -10) of the
// last step that failed.
int json_delete_local_files(const jsonEntry* jsonobj);
// SAVE writes, LOAD reads the 146-byte record at path. 0 or -1 (-1 without a
// message for a null argument).
int json_interact_metadata(const char* path, jsonEntry* jsonobj, interactMetadata type);
// The expiry sweep over the JSON tree with now as the sweep time: documents
// last stored more than five json_ping_interval ago are deleted. 0 when the
// walk ran to its end, else the walk's result.
int json_timeout_check(time_t now);
// The per-entry check of the sweep, an ftw callback (0 goes on).
int json_file_check(const char* filepath, const struct stat* info, int typeflag);
// Makes dir and every missing parent with mode; 0 or -1.
int mkdir_p(const char* dir, mode_t mode);
// The lock name of a JSON path (its bytes with every "/" as "|") with the
// path_lock_timeout_ms wait. A path that is empty or 256 bytes or longer is
// logged and gives a name that does not fit, which is never locked. Every
// JSON path lock is one HeldLock at a time: a directory's is released before
// its file's is taken, the index's before a document's.
LockName JsonLockName(const char* path);
// Whether the entry must be refused: an unterminated text, a line feed, or a
// path/filename that leads out of the JSON tree (a ".." component; a leading
// "/" stays inside, behind "<root>/v2/") or onto the index. A refusal is
// logged under op's name.
bool json_entry_refused(const char* op, const jsonEntry* jsonobj);
// Whether the full path of a document file (a line of the index) lies under
// the JSON tree of this store with no ".." component, so that it may be read.
bool json_file_in_tree(const char* filepath);

// Builds the path of the local-files index, <work_directory><local_files>;
// 0, or -1 after "too long path <local_files> for local_files" under op.
int json_index_path(const char* op, StorePath& index);
// Hands each line of the index at index (its line feed removed) to each, in
// file order, until each returns false. A missing or unreadable index has no
// lines.
void json_index_lines(const char* index, const std::function<bool(char* file)>& each);
// Loads the metadata file of the document file (<file>.mtd) into jsonobj:
// json_interact_metadata's result, or -2 (silently) when its path does not
// fit.
int json_load_metadata(const char* file, jsonEntry* jsonobj);
// Reads at most cap bytes of the document file into text, a link at its
// place not followed (as when the store writes it); the count, or -1.
ssize_t json_read_document(const char* file, char* text, size_t cap);

}  // namespace corvald
