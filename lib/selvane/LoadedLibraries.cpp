#include "LoadedLibraries.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>
#include <type_traits>

namespace selvane {
namespace {

[[noreturn]] void failed(const char* soname) {
  const char* reason = dlerror();
  throw std::runtime_error(std::string("Failed to load ") + soname + ": " +
                           (reason != nullptr ? reason : "unknown error"));
}

// Opens soname and hands find(name, function) to fill, which looks up each function.
template <typename Functions, typename Fill>
Functions load(const char* soname, Fill fill) {
  void* library = dlopen(soname, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) failed(soname);
  Functions functions;
  fill(functions, [&](const char* name, auto& function) {
    function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(dlsym(library, name));
    if (function == nullptr) failed(soname);
  });
  return functions;
}

}  // namespace

const CurlLibrary& curl() {
  static const CurlLibrary library = load<CurlLibrary>("libcurl.so.4", [](auto& f, auto find) {
    find("curl_global_init", f.global_init);
    find("curl_global_cleanup", f.global_cleanup);
    find("curl_easy_init", f.easy_init);
    find("curl_easy_setopt", f.easy_setopt);
    find("curl_easy_perform", f.easy_perform);
    find("curl_easy_getinfo", f.easy_getinfo);
    find("curl_easy_cleanup", f.easy_cleanup);
    find("curl_easy_strerror", f.easy_strerror);
    find("curl_slist_append", f.slist_append);
    find("curl_slist_free_all", f.slist_free_all);
  });
  return library;
}

const ArchiveLibrary& libarchive() {
  static const ArchiveLibrary library =
      load<ArchiveLibrary>("libarchive.so.13", [](auto& f, auto find) {
        find("archive_read_new", f.read_new);
        find("archive_read_support_format_ar", f.read_support_format_ar);
        find("archive_read_open_filename", f.read_open_filename);
        find("archive_read_next_header", f.read_next_header);
        find("archive_read_data", f.read_data);
        find("archive_read_data_skip", f.read_data_skip);
        find("archive_read_free", f.read_free);
        find("archive_error_string", f.error_string);
        find("archive_entry_pathname", f.entry_pathname);
        find("archive_entry_size", f.entry_size);
      });
  return library;
}

}  // namespace selvane
