@rem Runs the deployment kit's uninstall for the account that runs it: see Quorvane_Deploy.cmd.
@"%~dp0Quorvane_Deploy.cmd" uninstall %*
