# The supervisor: it receives the hardware at once, and the fans' status only once the chassis
# is powered on (run: ledra-ctl set /ledra/Ledra/hardware/chassis powerState on).
# Format: docs/profile-format.md.

profile supervisor
  lowMountPrio true

  group hardware 10
    mount /%sysname/Ledra/hardware Qel::Dir
    mount /%sysname/Ledra/hardware/chassis Demo::Chassis

  # The fan directory, entry by entry.
  group fans 20
    mount /%sysname/Ledra/hardware/fan Qel::Dir D

  group powered 50
    condition on == /%sysname/Ledra/hardware/chassis.powerState
    mount /%sysname/Ledra/status Qel::Dir
