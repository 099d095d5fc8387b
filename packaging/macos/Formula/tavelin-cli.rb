# Draft of the formula: the command line alone, built from source. It mounts nothing on a Mac, needs
# no signature beyond the linker's own, and therefore no notarisation: that is for programs that are
# downloaded, not for those built where they run.
#
# Before it can be submitted it needs the address and the sha256 of a release's source archive, and
# the same of the library's.
class TavelinCli < Formula
  desc "Reads and writes NTFS volumes in images and on devices"
  homepage "https://tavelin.org/"
  url "file:///Users/Shared/tavelin-0.1.0.tar.gz" # of the released archive
  version "0.1.0"
  license "GPL-2.0-or-later"

  depends_on "cmake" => :build
  depends_on "ninja" => :build
  depends_on "nlohmann-json" => :build
  depends_on "cli11" => :build
  depends_on "pkgconf" => :build
  depends_on "fmt"
  depends_on "openssl@3" # libcrypto
  depends_on "utf8proc"

  resource "ntfs-3g" do # no formula has it without FUSE
    url "file:///Users/Shared/ntfs-3g_ntfsprogs-2022.10.3.tgz" # of the project's own archive
  end

  def install
    library = buildpath/"ntfs-3g"
    resource("ntfs-3g").fetch
    system "packaging/macos/build-ntfs-3g", resource("ntfs-3g").cached_download, library
    system "cmake", "-S", ".", "-B", "build", "-G", "Ninja", *std_cmake_args,
           "-DTAVELIN_NTFS3G_PREFIX=#{library}", "-DTAVELIN_FUSE=OFF",
           "-DTAVELIN_TESTS=OFF", "-DTAVELIN_WERROR=OFF"
    system "cmake", "--build", "build", "--target", "tavelin"
    bin.install "build/tavelin"
  end

  test do
    assert_match version.to_s, shell_output("#{bin}/tavelin --version")
    (testpath/"empty.img").write("\0" * 4096)
    shell_output("#{bin}/tavelin probe empty.img", 1)
  end
end
