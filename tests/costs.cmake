# The longest tests, in seconds: the runner begins with them, so that all processors end together. It knows the times of
# an earlier run by itself; this is for the first one. A name that no test has changes nothing: the number after
# AllPlanted grows with the planted mistakes.
set_tests_properties(Protocol.IsSafeAndComesToItsEnd PROPERTIES COST 30)
set_tests_properties(Sweep.ASampleOfEveryScenarioRecovers PROPERTIES COST 38)
set_tests_properties(AllPlanted.CasesPassWithoutThem/35 PROPERTIES COST 22)
set_tests_properties(Protocol.HasEveryEdgeOfTheProgram PROPERTIES COST 24)
set_tests_properties(Sweep.HostileBoardsDoAsForetold PROPERTIES COST 20)
set_tests_properties(Sweep.ProcessorsAgree PROPERTIES COST 18)
set_tests_properties(Documents.CommandsRun PROPERTIES COST 28)
set_tests_properties(Sweep.HolesTakeAsMuchAsIsKnown PROPERTIES COST 17)
set_tests_properties(Sweep.LossesThatShowLateHaveTheirHoles PROPERTIES COST 13)
set_tests_properties(BankCheck.ForetellsWhatTheBootloaderDoes PROPERTIES COST 14)
set_tests_properties(Build.IsReproducible PROPERTIES COST 13)
set_tests_properties(Contract.ABadInputGivesTheSameStatusEverywhereAndHarmsNothing PROPERTIES COST 12)
set_tests_properties(Speed.ComesNearTheWire PROPERTIES COST 10)
