// A site on the disk: its pages, what they are made from, and their compiled files.

#ifndef ZEPH_DEVELOP_SITE_H
#define ZEPH_DEVELOP_SITE_H

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "compiler/PageFiles.h"
#include "develop/Places.h"
#include "develop/Problem.h"
#include "develop/Settings.h"

// Whether a file of a site is neither a source nor about the site, so that visitors may have it.
bool IsStaticFile(const std::string& name);

// A page as it was last compiled.
struct SitePage {
  bool succeeded = false;
  std::string image;              // empty after an error
  std::vector<Problem> problems;  // errors and warnings
  std::string formatted;          // the same for a terminal
  std::set<std::string> files;    // paths of what it is made from
};

struct SiteOptions {
  std::vector<std::string> defines;
  std::vector<FunctionsFile> functions;  // declarations of the libraries
};

// Compiles a page. name is its path from the root, which messages use, too.
SitePage CompileSitePage(const std::filesystem::path& root, const std::string& name,
                         const SiteOptions& options);

// A site that is compiled again and again while its files change. Belongs to one thread.
class Site {
 public:
  Site(std::filesystem::path root, const SiteFolders& folders, const Places& places,
       std::vector<std::string> defines);

  struct Changes {
    std::vector<std::string> compiled;  // pages
    std::vector<std::string> removed;   // pages
    bool settings = false;              // whether the settings are others
    bool files = false;                 // whether any file of the site is another one
    // Folders that cannot be read, unless they are those of the last time.
    std::vector<UnreadFolder> unread;
  };

  // Looks at all files of the site. Compiles pages that are new, that are made from a file that has
  // changed, or that had errors, and writes their files; the compiled files of pages with errors
  // are removed. What is in a folder that cannot be read counts as it was. touched has paths of
  // files that have changed, however they look.
  Changes Refresh(const std::set<std::string>& touched);

  const std::map<std::string, SitePage>& pages() const { return site_pages; }
  const SiteSettings& settings() const { return site_settings; }
  // Folders outside of the site that pages are made from, or that what is missing would be in. Each
  // is there.
  std::set<std::string> OutsideFolders() const;
  // The errors of a page; those of the settings are all pages', without lines of the file, which
  // may have passwords. Empty if it is in order.
  std::vector<Problem> Errors(const std::string& page) const;
  // Whether a file belongs to the site; the source of a page does.
  bool HasFile(const std::string& name) const { return stamps.count((root / name).string()) > 0; }

 private:
  // What tells one state of a file from the next.
  struct Stamp {
    int64_t size = 0;
    int64_t nanoseconds = 0;  // of its last change
    uint64_t inode = 0;
    bool operator==(const Stamp& other) const = default;
  };
  // Returns false, and leaves the stamp as it is, if the file cannot be looked at. One that is not
  // there has the stamp of no file.
  static bool StampOf(const std::string& path, Stamp* stamp);
  void Note(const std::string& path);

  // The paths of files that are new, changed or gone since the last time.
  std::set<std::string> FindChanges();
  void Compile(const std::string& name);
  void Remove(const std::string& page);

  std::filesystem::path root;
  SiteFolders folders;
  Places places;
  SiteOptions options;
  SiteSettings site_settings;
  std::map<std::string, SitePage> site_pages;
  std::map<std::string, Stamp> stamps;
  std::set<std::string> names;  // of the site's files
  std::vector<UnreadFolder> unread;
  bool first = true;
};

#endif
