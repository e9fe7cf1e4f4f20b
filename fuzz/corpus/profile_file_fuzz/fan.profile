# The fan agents: one family profile ("fan-") serves fan-1, fan-2, ... Each agent's slot is cut
# from its name: the field after the first "-" is the template key %slot.
# Format: docs/profile-format.md.

profile fan-
  templateKey 1 %slot

  # First the hardware directory, then the agent's own fan, then a status entity the agent
  # creates and writes.
  group hardware 10
    mount /%sysname/Ledra/hardware Qel::Dir
    mount /%sysname/Ledra/hardware/chassis Demo::Chassis

  group fan 20
    mount /%sysname/Ledra/hardware/fan Qel::Dir
    mount /%sysname/Ledra/hardware/fan/%slot Demo::Fan w

  group status 30
    mount /%sysname/Ledra/status/fan-%slot Demo::FanStatus wc

  # Only the first fan looks after the shared configuration.
  group config 40
    templateCondition %slot == 1
    mount /%sysname/Ledra/config Qel::Dir w
