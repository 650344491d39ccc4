// Holds the image of a device as the one file of a FUSE file system, and writes down everything that reaches it.
//
// usage: block_recorder IMAGE LOG FOLDER
//
// FOLDER/disk has the bytes of IMAGE. Each write of it is done there at once and appended to LOG: its offset and its
// length, as two numbers of 64 bits of this machine, then its bytes. A flush (fsync) is appended as the largest offset
// and the length 0. All is done by one thread, one after the other, so that the log has the order in which the device
// took it. Ends when FOLDER is unmounted or its parent ends, and with 1 if it cannot be mounted.

#define FUSE_USE_VERSION 35

#include <fcntl.h>
#include <fuse.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

namespace {

constexpr std::string_view kDisk = "/disk";
constexpr int kUsageError = 64;

class File {
 public:
  File(const char* path, int flags) : descriptor_(open(path, flags | O_CLOEXEC, 0600)) {
    if (descriptor_ < 0) {
      throw std::system_error(errno, std::generic_category(), path);
    }
  }
  ~File() { close(descriptor_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

struct Device {
  File image;
  File log;
};

struct Entry {
  std::uint64_t offset;
  std::uint64_t length;
};

constexpr Entry kFlush = {std::numeric_limits<std::uint64_t>::max(), 0};

const Device& TheDevice() { return *static_cast<const Device*>(fuse_get_context()->private_data); }

/// Returns 0, or a negative error number. A log that ends in the middle of an entry is of no use to anybody.
int Append(Entry entry, const char* bytes) {
  // writev() only reads them.
  const std::array<iovec, 2> parts = {iovec{&entry, sizeof entry},
                                      iovec{const_cast<char*>(bytes), static_cast<std::size_t>(entry.length)}};
  const ssize_t written = writev(TheDevice().log.descriptor(), parts.data(), static_cast<int>(parts.size()));
  return written == static_cast<ssize_t>(sizeof entry + entry.length) ? 0 : -EIO;
}

int GetAttributes(const char* path, struct stat* status, fuse_file_info* /*info*/) {
  *status = {};
  if (path == kDisk) {
    return fstat(TheDevice().image.descriptor(), status) == 0 ? 0 : -errno;
  }
  status->st_mode = S_IFDIR | 0700;
  status->st_nlink = 2;
  return std::string_view(path) == "/" ? 0 : -ENOENT;
}

int Open(const char* /*path*/, fuse_file_info* info) {
  info->direct_io = 1;  // nothing waits in a cache of the kernel between the device and its log
  return 0;
}

int Read(const char* /*path*/, char* bytes, std::size_t length, off_t offset, fuse_file_info* /*info*/) {
  const ssize_t count = pread(TheDevice().image.descriptor(), bytes, length, offset);
  return count < 0 ? -errno : static_cast<int>(count);
}

int Write(const char* /*path*/, const char* bytes, std::size_t length, off_t offset, fuse_file_info* /*info*/) {
  if (pwrite(TheDevice().image.descriptor(), bytes, length, offset) != static_cast<ssize_t>(length)) {
    return -EIO;
  }
  const int error = Append({static_cast<std::uint64_t>(offset), length}, bytes);
  return error != 0 ? error : static_cast<int>(length);
}

int Flush(const char* /*path*/, int /*data_only*/, fuse_file_info* /*info*/) { return Append(kFlush, nullptr); }

int Serve(Device& device, const char* folder) {
  fuse_operations operations = {};
  operations.getattr = GetAttributes;
  operations.open = Open;
  operations.read = Read;
  operations.write = Write;
  operations.fsync = Flush;
  std::string name = "block_recorder";
  std::array<char*, 1> words = {name.data()};
  fuse_args arguments = FUSE_ARGS_INIT(static_cast<int>(words.size()), words.data());
  const std::unique_ptr<fuse, void (*)(fuse*)> server(fuse_new(&arguments, &operations, sizeof operations, &device),
                                                      fuse_destroy);
  fuse_opt_free_args(&arguments);
  if (!server || fuse_mount(server.get(), folder) != 0) {
    return EXIT_FAILURE;
  }
  const int error = fuse_loop(server.get());
  fuse_unmount(server.get());
  return error == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: block_recorder IMAGE LOG FOLDER\n";
    return kUsageError;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    Device device = {File(argv[1], O_RDWR), File(argv[2], O_WRONLY | O_CREAT | O_TRUNC | O_APPEND)};
    return Serve(device, argv[3]);
  } catch (const std::system_error& error) {
    std::cerr << "block_recorder: " << error.what() << "\n";
    return EXIT_FAILURE;
  }
}
