// The shell's view of files: known folders (a name such as "Downloads" or "My Music" turned into a folder
// path, for searches that name a folder by its role rather than by its path), and files found by their
// reference on a mounted volume.
//
// Invariants:
// - Names are compared without regard to ASCII case, as the Windows shell compares them. A name may
//   carry a leading "shell:" and trailing separators; both are ignored.
// - The answer is a full path with the platform's separator and no trailing separator. It is not checked
//   for existence: a folder the user never created is still where the system would put it.
// - Failure (an unknown name, a folder with no path, such as a virtual one) returns false and leaves out
//   empty. Nothing is cached: every call reads the system again, so a moved folder is followed at once.
//
// Windows: the names below map to their known-folder ids and SHGetKnownFolderPath; any other name goes
// to the shell's own parser ("shell:<name>", SHParseDisplayName) and succeeds when the result has a path.
//
// Linux: the same names map to the XDG user folders. $XDG_CONFIG_HOME/user-dirs.dirs (by default
// ~/.config/user-dirs.dirs) is read for the lines XDG_<KIND>_DIR="$HOME/..." or "/...": comments and blank
// lines skipped, quotes and backslash escapes removed, $HOME expanded; a value that is neither form is
// ignored. A kind the file doesn't set takes the XDG default. $HOME comes from the environment (else the
// password database). The environment is read at each call.
//
//   name (aliases)                          Windows known folder      Linux
//   Desktop                                 Desktop                   XDG_DESKTOP_DIR      ($HOME/Desktop)
//   Personal, Documents, My Documents       Documents                 XDG_DOCUMENTS_DIR    ($HOME/Documents)
//   Downloads                               Downloads                 XDG_DOWNLOAD_DIR     ($HOME/Downloads)
//   My Music, Music                         Music                     XDG_MUSIC_DIR        ($HOME/Music)
//   My Pictures, Pictures                   Pictures                  XDG_PICTURES_DIR     ($HOME/Pictures)
//   My Video, Videos, Video                 Videos                    XDG_VIDEOS_DIR       ($HOME/Videos)
//   Templates                               Templates                 XDG_TEMPLATES_DIR    ($HOME/Templates)
//   Public                                  Public                    XDG_PUBLICSHARE_DIR  ($HOME/Public)
//   Screenshots                             Screenshots               <pictures>/Screenshots
//   Profile, UsersFilesFolder               Profile                   $HOME
//   UserProfiles                            UserProfiles              the folder that holds $HOME
//   AppData, Roaming AppData                RoamingAppData            $XDG_CONFIG_HOME     ($HOME/.config)
//   Local AppData, LocalAppData             LocalAppData              $XDG_DATA_HOME ($HOME/.local/share)
//   Cache                                   InternetCache             $XDG_CACHE_HOME      ($HOME/.cache)
//   Programs                                Programs                  <data home>/applications
//   Common Programs                         CommonPrograms            /usr/share/applications
//   Startup                                 Startup                   <config home>/autostart
//   Common Startup                          CommonStartup             /etc/xdg/autostart
//   Fonts                                   Fonts                     /usr/share/fonts
//   RecycleBinFolder, Trash                 (virtual: no path)        <data home>/Trash/files
//   Temp                                    the temporary folder      the temporary folder ($TMPDIR, /tmp)
//
// Only absolute values of the XDG_*_HOME variables count, as the XDG rules say; a relative one takes the
// default. A name outside the table has no folder on Linux.
#pragma once

#include <cstdint>

struct str_t;

// The folder of a known-folder name. out must be initialised; it is replaced. False when the name has no
// folder here.
bool os_known_folder(const char *name, str_t *out);

// The file that has the reference (low, high) on a mounted volume (volume: "C:", a mount folder or a
// volume GUID path): its parent folder's reference and its name, by OpenFileById and
// FSCTL_READ_FILE_USN_DATA. NTFS references are low alone (high 0), ReFS ones all 128 bits. Returns 1
// when found, 0 when the volume has no such file or won't tell, -1 when the volume can't be opened.
// Linux reads its volumes from devices and images, with no system call for this: always -1.
int os_volume_file_by_id(const char *volume, uint64_t low, uint64_t high, uint64_t *parent_low,
                         uint64_t *parent_high, str_t *name);

// The type text the shell shows for a name of that kind ("File folder", "Text Document"), from the name
// and the kind alone: nothing on the disk is read. out must be initialised; it is replaced. False, with
// out empty, where the platform's shell gives none (Linux has no such shell).
bool os_shell_type_text(const char *name, bool folder, str_t *out);

// The media type the system registers for a file extension (without its dot, any case): on Windows the
// "Content Type" value of the extension's key in HKEY_CLASSES_ROOT; on Linux the first type that
// /etc/mime.types lists the extension under (read once, on first use). out must be initialised; it is
// replaced. False, with out empty, when the system knows no type for it.
bool os_shell_content_type(const char *extension, str_t *out);
