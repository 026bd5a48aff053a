// libcurl and libarchive, loaded when the library first needs them (internal, not installed).
//
// A program that links libselvane but neither downloads nor opens a package never loads them,
// nor the TLS, LDAP, Kerberos, SSH, XML and compression libraries that come with them: several
// MiB of memory. The first call to curl() or libarchive() loads the library by its soname and
// looks up the functions used here; a failure throws std::runtime_error, and the next call tries
// again. A loaded library stays for the life of the process.
#ifndef SELVANE_LOADEDLIBRARIES_H
#define SELVANE_LOADEDLIBRARIES_H

#include <archive.h>
#include <archive_entry.h>
#include <curl/curl.h>

namespace selvane {

struct CurlLibrary {
  decltype(&::curl_global_init) global_init;
  decltype(&::curl_global_cleanup) global_cleanup;
  decltype(&::curl_easy_init) easy_init;
  decltype(&::curl_easy_setopt) easy_setopt;
  decltype(&::curl_easy_perform) easy_perform;
  decltype(&::curl_easy_getinfo) easy_getinfo;
  decltype(&::curl_easy_cleanup) easy_cleanup;
  decltype(&::curl_easy_strerror) easy_strerror;
  decltype(&::curl_slist_append) slist_append;
  decltype(&::curl_slist_free_all) slist_free_all;
};

struct ArchiveLibrary {
  decltype(&::archive_read_new) read_new;
  decltype(&::archive_read_support_format_ar) read_support_format_ar;
  decltype(&::archive_read_open_filename) read_open_filename;
  decltype(&::archive_read_next_header) read_next_header;
  decltype(&::archive_read_data) read_data;
  decltype(&::archive_read_data_skip) read_data_skip;
  decltype(&::archive_read_free) read_free;
  decltype(&::archive_error_string) error_string;
  decltype(&::archive_entry_pathname) entry_pathname;
  decltype(&::archive_entry_size) entry_size;
};

const CurlLibrary& curl();
const ArchiveLibrary& libarchive();

}  // namespace selvane

#endif
