# Draft of the cask: the application with its file-system extension, from the disk image that
# make-image writes. Before it can be submitted it needs what only a release has:
#
# - sha256 of the notarised and stapled image, and the address that it is published at. The image is
#   signed with a Developer ID; the extension carries a provisioning profile for its restricted
#   entitlement (docs/macos.md). An image without a ticket is refused by Gatekeeper once it has been
#   downloaded, and a cask may not take that mark away.
# - A person's consent. macOS starts no file-system extension before its user has switched it on in
#   System Settings; nothing here can, which is why caveats say it.
cask "tavelin" do
  version "0.1.0"
  sha256 :no_check # of the released image

  url "file:///Users/Shared/Tavelin-#{version}.dmg" # of the released image
  name "Tavelin"
  desc "NTFS volumes for reading and writing"
  homepage "https://tavelin.org/"

  depends_on macos: ">= :sequoia" # 15.4, the first with third-party FSKit modules

  app "Tavelin.app"

  uninstall quit: "org.tavelin.Tavelin"
  # The group begins with the identifier of the team that signed.
  zap trash: "~/Library/Group Containers/*.org.tavelin.Tavelin"

  caveats <<~TEXT
    Open Tavelin once, then switch its file-system extension on:
      System Settings > General > Login Items & Extensions > File System Extensions
  TEXT
end
