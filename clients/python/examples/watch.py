import kesa

with kesa.connect(timeout=None) as system:                         # the registry may come later
    for change in system.watch("/py/**"):                          # what is there, then each change
        print(change.kind, change.record.path, flush=True)
