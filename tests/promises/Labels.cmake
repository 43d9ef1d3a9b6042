# Which tests belong to which promise, by their names. Read in two ways: by a CMakeLists.txt for the
# tests that it knows, and by CTest for those that a test program lists (see varn_add_test).

set(varn_promises
  never-unsigned never-unverified never-torn never-down never-wider never-fooled never-steered xml-is-data
  runner-word)

# Two lists of names for each: CTest reads this file as well, which knows no functions of ours.
set(varn_tests_of_never-unsigned
  "^SignedList\\." "^BoundFile\\." "^BoundPath\\." "^TrustedKeys\\." "^HostileServer\\."
  "^JudgeList\\." "^JudgeKeptList\\." "^TrustState" "^SignatureFile\\." "^SignedComment\\."
  "^NoMemory\\." "^ProcessScript\\.WhoseDocument" "^endtoend\\.test_trust\\." "^faults/"
  "^[Ff]uzz.*(signature-file|key-file|trust-state)")
set(varn_tests_of_never-unverified
  "^ChecksumOfFile\\." "\\.ChecksumContract\\." "^DigestName\\." "^DigestValue\\."
  "^IsValidChecksumForFile\\."
  "^DownloadPath\\.WhoseScript" "^DownloadPath\\.WithoutAChecksum" "^LocalPath\\.WhoseScript"
  "^LocalPath\\.WithoutAChecksum" "^ThrowingDependencies\\.AValidator" "^FileLockOffset\\."
  "^ScriptTurnTest\\." "^endtoend\\.test_turns\\." "^HttpConditional\\." "^endtoend\\.test_polls\\." "^faults/"
  "^fuzz.*whole-request")
set(varn_tests_of_never-torn
  "^Download\\." "^bundled\\.(Download|Store)Contract\\." "^SharedStore\\." "^Store\\."
  "^endtoend\\.test_failures\\.RecoveryTest" "^faults/")
set(varn_tests_of_never-down
  "^ThrowingDependencies" "^ThrowingFromTheStart" "^Files\\.A(FailedRead|ReadOfANamedPipe)"
  "^Files\\.(ATreeOfAnyDepth|WithoutAFreeDescriptor)" "^LittleMemory\\."
  "^Store\\.(IsNotWaitedFor|RefusesWhat|ARowThatIsNo|ATableThat)" "^FileServer\\.WhatIsNoFile"
  "^ShellProcess\\.Leaves(NoZombie|NoDescriptor)" "^ShellProcess\\.(OfAHost|Survives|DoesNotReap)"
  "^endtoend\\.test_failures\\." "^endtoend\\.test_signals\\." "^faults/" "^[Ff]uzz")
set(varn_tests_of_never-wider
  "WhateverTheUmask" "ALinkAndDoesNotFollowIt" "^Download\\.(Refuses|Replaces|Reports|Sweeps)"
  "^Store\\.(IsNotOpenedThroughALink|WritableByOthers|ForItsOwner|IsNotWaitedFor)"
  "^LogFile\\.(IsForTheOwner|IsNotWrittenThroughALink|IsNotInherited|IsNoFIFO|OfAnotherUser)"
  "^Files\\.(RemovalOfALink|WhatHasNoName|APathWithANUL)" "^SystemCallFaults\\.ADirectoryThat"
  "^LogFile\\.WithASecondName" "^LogFileReplaced\\."
  "^ScriptTurnTest\\.(TheFileIsFor|ASymbolicLink)"
  "^ShellProcess\\.(Sees|StartsWith|RunsWhenTheHostHasNoStandard)"
  "^endtoend\\.test_requests\\.FilesTest" "^endtoend\\.test_scripts\\.SurroundingsTest")
set(varn_tests_of_never-fooled
  "^HttpFailure\\." "^HttpDownload\\." "^HttpRetry\\." "^HttpConditional\\." "^AnswerValidators\\."
  "^EntityTag\\." "^HTTPDate\\." "^Condition\\." "^GzipDecoder\\." "^ServerURL\\." "^FileServer\\."
  "^RequestHeaders\\." "^endtoend\\.test_https\\." "^endtoend\\.test_reaching\\."
  "^endtoend\\.test_failures\\.LimitTest")
set(varn_tests_of_never-steered
  "^LogTextLine\\." "^Printable(Text|JSON)\\." "^ListTable\\.WidthCounts")
set(varn_tests_of_xml-is-data
  "^XMLHostile\\." "^XMLDecode\\." "^bundled\\.ParserContract\\." "^[Ff]uzz.*document")
set(varn_tests_of_runner-word
  "^RunnerPromise" "^fuzz.*runner" "^ShellOutput\\." "^ShellLimit\\." "^ShellProcess\\." "^ShellStart\\.")

# Gives each test of `varn_tests` the labels of its promises, beside those that it has.
foreach(test IN LISTS varn_tests)
  set(labels ${varn_labels_of_all})
  foreach(promise IN LISTS varn_promises)
    foreach(name IN LISTS varn_tests_of_${promise})
      if(test MATCHES "${name}")
        list(APPEND labels ${promise})
        break()
      endif()
    endforeach()
  endforeach()
  if(labels)
    set_tests_properties("${test}" PROPERTIES LABELS "${labels}")
  endif()
endforeach()
