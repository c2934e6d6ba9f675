# SPDX-License-Identifier: Apache-2.0
# Directories that change while they are listed.
mkdir folder
probe listing folder
