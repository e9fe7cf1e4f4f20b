# The supervisor: it receives the hardware at once, the status only once the chassis is powered
# on (run: ledra-ctl set /ledra/Ledra/hardware/chassis powerState on), and the line cards as they
# are plugged in.
# Format: docs/profile-format.md.

profile supervisor
  lowMountPrio true

  group hardware 10
    mount /%sysname/Ledra/hardware Qel::Dir
    mount /%sysname/Ledra/hardware/chassis Demo::Chassis

  group fans 20
    mount /%sysname/Ledra/hardware/fan Qel::Dir

  # The line cards, entry by entry: the card directory appears with the first card plugged in
  # (ledra-ctl load-state examples/hotplug/card-1.state), and every card plugged in afterwards is
  # mounted as it comes (card-2.state). The supervisor is complete once the directory has been
  # quiet for a second. Cards plugged in while the powered group still waits are mounted once
  # it has been served.
  group cards 30
    mount /%sysname/Ledra/hardware/card Qel::Dir D

  group powered 50
    condition on == /%sysname/Ledra/hardware/chassis.powerState
    mount /%sysname/Ledra/status Qel::Dir
