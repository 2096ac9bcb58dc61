@rem Runs the deployment kit's install for the account that runs it: see Quorvane_Deploy.cmd.
@"%~dp0Quorvane_Deploy.cmd" install %*
