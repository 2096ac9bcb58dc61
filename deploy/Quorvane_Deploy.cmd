@"%~dp0Quorvane_Kit.exe" %*
