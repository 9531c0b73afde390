"""A view of /etc in which some entries are replaced; the machine's own files are not touched."""

import os

# The mounts are made in the mount namespace in which this runs. The machine's /etc stays visible in
# the folder, and every entry of the new one is a link to it or a copy of a replacement.
_SCRIPT = r"""
set -e
etc=$1/etc replacements=$1/replacements
shift
mount --rbind /etc "$etc"
mount -t tmpfs -o mode=755 ostravel /etc
ln -s "$etc"/* "$etc"/.[!.]* /etc
for each in "$replacements"/*; do
  rm -f "/etc/${each##*/}"
  cp -r "$each" /etc
done
cd /
exec "$@"
"""


class PrivateEtc:
    """The replacements, kept in a folder of the caller until a program needs them.

    Replacements that are made later apply to programs that are started later.
    """

    def __init__(self, folder):
        self._folder = folder
        os.mkdir(self.mount_point)
        os.mkdir(self.replacement())

    @property
    def mount_point(self):
        """Where the machine's /etc is mounted in the namespaces that have this view."""
        return os.path.join(self._folder, "etc")

    def replacement(self, *names):
        """The path of a file or folder that programs find under these names in /etc."""
        return os.path.join(self._folder, "replacements", *names)

    def command(self, *arguments):
        """A command that sets up the view in its own mount namespace and then runs arguments."""
        return ["sh", "-c", _SCRIPT, "sh", self._folder, *arguments]
