# SPDX-License-Identifier: Apache-2.0
# Random writes, mappings, truncations and reads of one file, every byte known.
for seed in 1 2 3; do
  probe random file$seed $seed 1500
  forget
  cmp file$seed "$served/file$seed"
done
