# The boot-loader contract of selvane's A/B updates, for U-Boot (mkimage -T script makes boot.scr).
#
#   boot.bootmode = boot.knowngood          boot that root
#   else boot.otaretrycount above 0         decrement it, save the environment, boot boot.bootmode
#   else (the retries are spent)            boot.bootmode = boot.knowngood, save, boot it
#
# The environment is the one the OS writes with libubootenv (libbrix): a redundant pair of copies
# at the start of the partition labelled "brix", 0x4000 bytes each. A copy is the CRC32 of its data
# (little-endian), a flags byte that each write increments, and the data, "name=value" strings
# each ended by a NUL, then one more NUL. The valid copy with the newer flags is in use; a save
# writes the other copy, so a save cut short leaves the one in use intact. A save keeps every
# variable of the copy in use, and changes only the three above.
#
# Board specifics to adapt: env_part and the copy size (must match /etc/fw_env.config), the
# scratch addresses (free RAM away from the kernel, the initrd and this script), the device
# commands (virtio read/write here; mmc read/write on an eMMC board), and the kernel command line.
setenv env_part brix
setenv env_blocks 0x20
setenv env_data_size 0x3ffb
setenv env_copies 0x48000000
setenv env_second 0x48004000
setenv env_new 0x48100000
setenv env_new_flags_at 0x48100004
setenv env_new_data 0x48100005
setenv env_keep 0x48200000
# U-Boot checks and makes CRCs in its own layout, CRC then data, at env_plain (0x3fff bytes).
setenv env_plain 0x48400000
setenv env_plain_data 0x48400004
setenv env_plain_size 0x3fff
setenv boot_dev ${devnum}:${distro_bootpart}

# --- read both copies and find the one in use ---
setenv env_use none
setenv env_flags 0
if part start ${devtype} ${devnum} ${env_part} env_start; then
  setexpr env_start2 ${env_start} + ${env_blocks}
  setexpr env_both ${env_blocks} + ${env_blocks}
  if ${devtype} read ${env_copies} ${env_start} ${env_both}; then
    for copy in ${env_copies} ${env_second}; do
      setexpr copy_data ${copy} + 5
      cp.b ${copy} ${env_plain} 4
      cp.b ${copy_data} ${env_plain_data} ${env_data_size}
      if env import -c ${env_plain} ${env_plain_size} boot.bootmode boot.knowngood boot.otaretrycount; then
        setexpr copy_flags_at ${copy} + 4
        setexpr.b copy_flags *${copy_flags_at}
        if test "${env_use}" = none; then
          setenv env_use ${copy}; setenv env_flags ${copy_flags}
        else
          # the newer of two valid copies: its flags are 1 to 0x7f ahead, modulo 256
          setexpr copy_ahead ${copy_flags} - ${env_flags}
          setexpr copy_ahead ${copy_ahead} \& 0xff
          setexpr copy_back ${copy_ahead} \& 0x80
          if test "${copy_ahead}" != 0 -a "${copy_back}" = 0; then
            setenv env_use ${copy}; setenv env_flags ${copy_flags}
          fi
        fi
      fi
    done
  fi
else
  echo "selvane: no partition ${env_part}"
fi
# A save goes to the copy not in use, with the flags one ahead.
setenv env_target ${env_start}
if test "${env_use}" = ${env_copies}; then setenv env_target ${env_start2}; fi
setexpr env_new_flags ${env_flags} + 1
setexpr env_new_flags ${env_new_flags} \& 0xff

setenv boot.bootmode
setenv boot.knowngood
setenv boot.otaretrycount
setenv env_dirty 0
if test "${env_use}" = none; then
  echo "selvane: no valid environment copy, starting from main-A"
  setenv env_dirty 1
else
  setexpr env_use_data ${env_use} + 5
  env import -b ${env_use_data} ${env_data_size} boot.bootmode boot.knowngood boot.otaretrycount
fi
# Only the two root labels are bootable; anything else counts as unset.
if test "${boot.knowngood}" != main-A -a "${boot.knowngood}" != main-B; then
  setenv boot.knowngood main-A; setenv env_dirty 1
fi
if test "${boot.bootmode}" != main-A -a "${boot.bootmode}" != main-B; then
  setenv boot.bootmode ${boot.knowngood}; setenv env_dirty 1
fi
if test -z "${boot.otaretrycount}"; then setenv boot.otaretrycount 0; fi
echo "selvane: bootmode=${boot.bootmode} knowngood=${boot.knowngood} otaretrycount=${boot.otaretrycount}"

# --- the contract ---
if test "${boot.bootmode}" = "${boot.knowngood}"; then
  echo "selvane: booting known-good ${boot.bootmode}"
elif test "${boot.otaretrycount}" -gt 0; then
  # setexpr counts in hexadecimal, which equals decimal for one digit: more than 9 counts as 9.
  if test "${boot.otaretrycount}" -gt 9; then setenv boot.otaretrycount 9; fi
  setexpr boot.otaretrycount ${boot.otaretrycount} - 1
  echo "selvane: trying ${boot.bootmode}, retries left ${boot.otaretrycount}"
  setenv env_dirty 1
else
  echo "selvane: retries spent on ${boot.bootmode}, falling back to ${boot.knowngood}"
  setenv boot.bootmode ${boot.knowngood}
  setenv env_dirty 1
fi

# --- save: every variable of the copy in use, with the three above as decided ---
if test "${env_dirty}" = 1; then
  if test "${env_use}" = none; then
    env export -c -s ${env_plain_size} ${env_plain} boot.bootmode boot.knowngood boot.otaretrycount
  else
    # U-Boot's own variables (these included) are set aside at env_keep while the board's
    # environment is loaded whole: the next three commands name env_keep and env_plain by value.
    env export -b ${env_keep}
    env import -d -b ${env_use_data} ${env_data_size}
    env import -b 0x48200000 - boot.bootmode boot.knowngood boot.otaretrycount
    env export -c -s 0x3fff 0x48400000
    env import -d -b 0x48200000 -
  fi
  cp.b ${env_plain} ${env_new} 4
  cp.b ${env_plain_data} ${env_new_data} ${env_data_size}
  mw.b ${env_new_flags_at} ${env_new_flags}
  if ${devtype} write ${env_new} ${env_target} ${env_blocks}; then
    echo "selvane: environment saved (flags ${env_new_flags})"
  else
    echo "selvane: saving the environment failed"
  fi
fi

load ${devtype} ${boot_dev} ${kernel_addr_r} zImage
load ${devtype} ${boot_dev} ${ramdisk_addr_r} initrd.img
setenv bootargs "console=ttyAMA0 root=PARTLABEL=${boot.bootmode} panic=5 quiet"
bootz ${kernel_addr_r} ${ramdisk_addr_r}:${filesize} ${fdtcontroladdr}
echo "selvane: bootz failed"
